# The C interface: a host in C that includes only its header; the header by itself, as C11 and as
# C++20; and, where clang is there, the layouts for a target whose pointers have 32 bits.
add_executable(qor_plugin_c_test qor_plugin_c_test.c)
target_link_libraries(qor_plugin_c_test PRIVATE orrery)
add_test(NAME CInterface.IsEnoughForAHostInC COMMAND qor_plugin_c_test)

add_library(qor_plugin_alone OBJECT qor_plugin_alone.c qor_plugin_alone.cpp)
target_compile_options(qor_plugin_alone PRIVATE -pedantic-errors)

find_program(CLANG_PROGRAM NAMES clang clang-14 clang-15 clang-16)
if(CLANG_PROGRAM)
  execute_process(COMMAND ${CLANG_PROGRAM} -print-resource-dir
    OUTPUT_VARIABLE clang_resources OUTPUT_STRIP_TRAILING_WHITESPACE)
  foreach(language IN ITEMS c11 c++20)
    string(REPLACE "c11" "c" extension "${language}")
    string(REPLACE "c++20" "cpp" extension "${extension}")
    add_test(NAME CInterface.KeepsItsLayoutsOn32BitArmAs_${language}
      COMMAND ${CLANG_PROGRAM} --target=arm-linux-gnueabihf -std=${language} -fsyntax-only
        -ffreestanding -nostdinc -isystem ${clang_resources}/include
        -I${CMAKE_CURRENT_SOURCE_DIR}/../.. -Wall -Wextra -Werror -pedantic-errors
        ${CMAKE_CURRENT_SOURCE_DIR}/qor_plugin_alone.${extension})
  endforeach()
endif()
