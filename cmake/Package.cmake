# The Debian packages that scripts/package builds: orrery, and orrery-dev for those who write hosts
# and plug-ins.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME orrery)
set(CPACK_PACKAGE_VENDOR "the orrery project")
set(CPACK_PACKAGE_CONTACT "The orrery project <maintainers@orrery.invalid>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_COMPONENTS_ALL runtime development)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_STRIP_FILES TRUE)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION TRUE)
set(CPACK_DEBIAN_PACKAGE_RELEASE ${ORRERY_DEBIAN_RELEASE})

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME orrery)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION net)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
configure_file(packaging/debian/shlibs.in "${CMAKE_BINARY_DIR}/package-files/shlibs" @ONLY)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA
  "${PROJECT_SOURCE_DIR}/packaging/debian/postinst"
  "${PROJECT_SOURCE_DIR}/packaging/debian/postrm"
  "${PROJECT_SOURCE_DIR}/packaging/debian/triggers"
  "${CMAKE_BINARY_DIR}/package-files/shlibs")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_RECOMMENDS ca-certificates)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
"A host hands the transport messages; each describes one HTTP request, which is
performed on a pool of kept connections and answered exactly once.
.
This package holds the stand-alone host orrery-host, which reads requests and
writes answers as lines of JSON, the transport and the runtime library.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME orrery-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "orrery (= ${ORRERY_DEBIAN_VERSION})")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION
"The C interface between hosts and their transports, for those who write one:
its header, what CMake and pkg-config need to find it, and examples of both.")

include(CPack)
