# Proves what liborrery.so exports: every function of qor_plugin.h, namespace orrery with the type
# information of its exceptions, and nothing else.
# cmake -DNM=nm -DLIBRARY=liborrery.so -DHEADER=qor_plugin.h -P ExportedSymbols.cmake
cmake_minimum_required(VERSION 3.25)

execute_process(COMMAND ${NM} -D --defined-only --demangle --format=just-symbols ${LIBRARY}
  OUTPUT_VARIABLE listing COMMAND_ERROR_IS_FATAL ANY)
# Brackets would join list elements, and a semicolon would part one.
string(REGEX REPLACE "[][;]" "_" listing "${listing}")
string(REPLACE "\n" ";" symbols "${listing}")
list(FILTER symbols EXCLUDE REGEX "^$")

set(strangers ${symbols})
list(FILTER strangers EXCLUDE REGEX
  "^(qor_[a-z_]+|((typeinfo|typeinfo name|vtable) for )?orrery::.*)$")
if(strangers)
  message(FATAL_ERROR "exported, but not part of the interface: ${strangers}")
endif()

file(READ ${HEADER} header)
string(REGEX MATCHALL "QOR_API [^(;]*qor_[a-z_]+\\(" declarations "${header}")
set(expected
  "typeinfo for orrery::Exception" "typeinfo for orrery::StreamException"
  "vtable for orrery::Exception" "vtable for orrery::StreamException"
  "vtable for orrery::Thread" "typeinfo for orrery::RefCountedObject")
foreach(declaration IN LISTS declarations)
  string(REGEX MATCH "qor_[a-z_]+\\($" name "${declaration}")
  string(REPLACE "(" "" name "${name}")
  list(APPEND expected "${name}")
endforeach()
list(LENGTH declarations count)
if(count LESS 20)
  message(FATAL_ERROR "only ${count} functions were found in ${HEADER}")
endif()
foreach(name IN LISTS expected)
  if(NOT name IN_LIST symbols)
    message(FATAL_ERROR "not exported: ${name}")
  endif()
endforeach()

# A unique symbol would keep the library mapped after dlclose.
execute_process(COMMAND ${NM} -D --defined-only ${LIBRARY}
  OUTPUT_VARIABLE kinds COMMAND_ERROR_IS_FATAL ANY)
if(kinds MATCHES " u ")
  message(FATAL_ERROR "a unique symbol is exported: ${kinds}")
endif()
