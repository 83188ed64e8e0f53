# Writes the source file that tells the program's version and commit. Run at each build:
#
#   cmake -DSOURCE=<project's folder> -DVERSION=0.1.0 -DOUTPUT=<file> -P CommitVersion.cmake
#
# The file is left alone where it would not change, so that nothing is compiled again. A folder that
# is no repository's root (an unpacked archive, perhaps inside another repository) has no commit.
find_program(GIT git)
set(commit "")
if(GIT AND EXISTS "${SOURCE}/.git")
  execute_process(
    COMMAND "${GIT}" --no-optional-locks -C "${SOURCE}" describe --always --dirty --exclude=* --abbrev=7
    OUTPUT_VARIABLE commit OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
endif()

set(text "${VERSION}")
if(commit)
  string(APPEND text " (${commit})")
endif()
set(content "#include \"host/commands/Version.hpp\"

namespace host {

const char* versionText() noexcept { return \"${text}\"; }

}  // namespace host
")
if(EXISTS "${OUTPUT}")
  file(READ "${OUTPUT}" before)
endif()
if(NOT "${before}" STREQUAL "${content}")
  file(WRITE "${OUTPUT}" "${content}")
endif()
