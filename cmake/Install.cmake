# What `cmake --install` puts where, in two components: what runs (runtime), and what hosts and
# plug-ins are built with (development). Everything is relative to the prefix and to itself, so an
# installed tree may be moved.
include(CMakePackageConfigHelpers)

set(orrery_cmake_files "${CMAKE_INSTALL_LIBDIR}/cmake/orrery")
set(orrery_dev_doc "${CMAKE_INSTALL_DATADIR}/doc/orrery-dev")
set(orrery_zsh_completions "${CMAKE_INSTALL_DATADIR}/zsh/site-functions")
if(EXISTS /etc/debian_version)
  set(orrery_zsh_completions "${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions")
endif()

# --- What runs -----------------------------------------------------------------------------------

# One run path for the build tree and for the installed one: where CMake is to change it at installing, it
# pads it with colons, and the loader takes what is behind a colon for the current folder.
set(orrery_program_rpath "$ORIGIN/../lib" "$ORIGIN/${ORRERY_BIN_TO_LIB}")
list(REMOVE_DUPLICATES orrery_program_rpath)
set_target_properties(orrery-host PROPERTIES
  INSTALL_RPATH "${orrery_program_rpath}" BUILD_WITH_INSTALL_RPATH ON)
set_target_properties(HTTPClient PROPERTIES
  INSTALL_RPATH "$ORIGIN;$ORIGIN/.." BUILD_WITH_INSTALL_RPATH ON)
install(TARGETS orrery-host RUNTIME COMPONENT runtime)
install(TARGETS HTTPClient LIBRARY DESTINATION "${ORRERY_PLUGIN_DIR}" COMPONENT runtime)
install(TARGETS orrery EXPORT orreryTargets
  LIBRARY COMPONENT runtime NAMELINK_COMPONENT development)

# Compressed as Debian wants manual pages and changelogs: with gzip, without name and time.
function(orrery_install_compressed source name destination component)
  set(compressed "${CMAKE_BINARY_DIR}/package-files/${name}.gz")
  add_custom_command(OUTPUT "${compressed}"
    COMMAND sh -c "gzip -9nc '${source}' > '${compressed}'" VERBATIM DEPENDS "${source}")
  add_custom_target("compressed-${name}" ALL DEPENDS "${compressed}")
  add_dependencies(compressed_files "compressed-${name}")
  install(FILES "${compressed}" DESTINATION "${destination}" COMPONENT "${component}")
endfunction()

add_custom_target(compressed_files)
orrery_install_compressed("${PROJECT_SOURCE_DIR}/man/orrery-host.1" orrery-host.1
  "${CMAKE_INSTALL_MANDIR}/man1" runtime)
orrery_install_compressed("${PROJECT_SOURCE_DIR}/man/orrery-chain.5" orrery-chain.5
  "${CMAKE_INSTALL_MANDIR}/man5" runtime)
orrery_install_compressed("${PROJECT_SOURCE_DIR}/CHANGELOG.md" changelog
  "${CMAKE_INSTALL_DOCDIR}" runtime)

install(FILES packaging/completions/orrery-host.bash RENAME orrery-host
  DESTINATION "${CMAKE_INSTALL_DATADIR}/bash-completion/completions" COMPONENT runtime)
install(FILES packaging/completions/_orrery-host
  DESTINATION "${orrery_zsh_completions}" COMPONENT runtime)
install(FILES packaging/systemd/orrery-host@.service DESTINATION lib/systemd/system
  COMPONENT runtime)
install(DIRECTORY examples/chains DESTINATION "${CMAKE_INSTALL_DOCDIR}/examples"
  COMPONENT runtime)

# --- What hosts and plug-ins are built with ------------------------------------------------------

install(FILES connectivity/qor_plugin.h
  DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/orrery/connectivity" COMPONENT development)
install(EXPORT orreryTargets NAMESPACE orrery:: DESTINATION "${orrery_cmake_files}"
  COMPONENT development)
configure_package_config_file(cmake/orreryConfig.cmake.in
  "${CMAKE_BINARY_DIR}/package-files/orreryConfig.cmake"
  INSTALL_DESTINATION "${orrery_cmake_files}" PATH_VARS ORRERY_PLUGIN_DIR)
# Before 1.0, a new minor version may break what an older one allowed.
write_basic_package_version_file("${CMAKE_BINARY_DIR}/package-files/orreryConfigVersion.cmake"
  COMPATIBILITY SameMinorVersion)
install(FILES "${CMAKE_BINARY_DIR}/package-files/orreryConfig.cmake"
    "${CMAKE_BINARY_DIR}/package-files/orreryConfigVersion.cmake"
  DESTINATION "${orrery_cmake_files}" COMPONENT development)

file(RELATIVE_PATH orrery_pkgconfig_to_prefix
  "/prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/prefix")
string(REGEX REPLACE "/$" "" orrery_pkgconfig_to_prefix "${orrery_pkgconfig_to_prefix}")
configure_file(packaging/orrery.pc.in "${CMAKE_BINARY_DIR}/package-files/orrery.pc" @ONLY)
install(FILES "${CMAKE_BINARY_DIR}/package-files/orrery.pc"
  DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig" COMPONENT development)
install(FILES docs/c-interface.md DESTINATION "${orrery_dev_doc}" COMPONENT development)
install(DIRECTORY examples/minimal_host examples/echo_plugin
  DESTINATION "${orrery_dev_doc}/examples" COMPONENT development)

# --- What a Debian package has besides -----------------------------------------------------------

configure_file(packaging/debian/changelog.in "${CMAKE_BINARY_DIR}/package-files/debian-changelog"
  @ONLY)
orrery_install_compressed("${CMAKE_BINARY_DIR}/package-files/debian-changelog" changelog.Debian
  "${CMAKE_INSTALL_DOCDIR}" runtime)
install(FILES "${CMAKE_BINARY_DIR}/package-files/changelog.Debian.gz"
  DESTINATION "${orrery_dev_doc}" COMPONENT development)
install(FILES packaging/debian/copyright DESTINATION "${CMAKE_INSTALL_DOCDIR}" COMPONENT runtime)
install(FILES packaging/debian/copyright DESTINATION "${orrery_dev_doc}" COMPONENT development)
install(FILES packaging/debian/orrery.lintian-overrides RENAME orrery
  DESTINATION "${CMAKE_INSTALL_DATADIR}/lintian/overrides" COMPONENT runtime)
install(FILES packaging/debian/orrery-dev.lintian-overrides RENAME orrery-dev
  DESTINATION "${CMAKE_INSTALL_DATADIR}/lintian/overrides" COMPONENT development)
