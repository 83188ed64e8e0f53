# Where things are installed, relative to the prefix.
#
# On Debian the library folder is that of the machine's architecture, under every prefix: one build
# serves /usr/local as well as the package, and the loader, CMake and pkg-config look in both.
if(EXISTS /etc/debian_version AND CMAKE_LIBRARY_ARCHITECTURE)
  set(CMAKE_INSTALL_LIBDIR "lib/${CMAKE_LIBRARY_ARCHITECTURE}" CACHE PATH
    "Libraries, relative to the prefix")
endif()
include(GNUInstallDirs)

# Transports: the host loads them by name from here, in relation to its own place.
set(ORRERY_PLUGIN_DIR "${CMAKE_INSTALL_LIBDIR}/orrery")
file(RELATIVE_PATH ORRERY_BIN_TO_LIB
  "/prefix/${CMAKE_INSTALL_BINDIR}" "/prefix/${CMAKE_INSTALL_LIBDIR}")
string(REGEX REPLACE "/$" "" ORRERY_BIN_TO_LIB "${ORRERY_BIN_TO_LIB}")

# The version of the Debian packages: the project's, and how often that has been packaged.
set(ORRERY_DEBIAN_RELEASE 1)
set(ORRERY_DEBIAN_VERSION "${PROJECT_VERSION}-${ORRERY_DEBIAN_RELEASE}")
