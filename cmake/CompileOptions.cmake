# Compiler options that hold for every target of the project.

add_compile_options(
  -Wall -Wextra -Wpedantic -Werror -Wshadow -Wconversion -Wformat=2 -Wundef
  $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor>
  $<$<COMPILE_LANGUAGE:CXX>:-Woverloaded-virtual>
  $<$<COMPILE_LANGUAGE:CXX>:-Wold-style-cast>
  $<$<COMPILE_LANGUAGE:CXX>:-Wextra-semi>
  -fno-omit-frame-pointer
  # One block of memory is read through two views of its layout: qor_data_t here, data_t there.
  -fno-strict-aliasing)

if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  add_compile_options($<$<COMPILE_LANGUAGE:CXX>:-Wthread-safety>)
endif()

# Nothing here was built with a g++ older than 7, whose way of passing parameters was another on ARM.
if(CMAKE_SYSTEM_PROCESSOR STREQUAL "arm" AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  add_compile_options(-Wno-psabi)
endif()

if(ORRERY_SANITIZE)
  add_compile_options(-fsanitize=${ORRERY_SANITIZE} -fno-sanitize-recover=all -O1)
  add_link_options(-fsanitize=${ORRERY_SANITIZE})
  # g++ 12 takes the standard library's own members for uninitialized where it is instrumented.
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    add_compile_options(-Wno-maybe-uninitialized)
  endif()
endif()
