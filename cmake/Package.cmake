# Debian packages, one a component of the installation: the module, what host writers need, and flvhost. `make
# package` builds them into build/packages.

set(FLV_MAINTAINER "flvadaptor maintainers <maintainers@flvadaptor.invalid>" CACHE STRING
    "Name and address that the packages bear")

set(CPACK_GENERATOR DEB)
set(CPACK_COMPONENTS_ALL module dev host)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER ${FLV_MAINTAINER})
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE
    WORLD_READ WORLD_EXECUTE)

set(CPACK_DEBIAN_MODULE_PACKAGE_NAME flvadaptor)
set(CPACK_DEBIAN_MODULE_PACKAGE_SECTION video)
set(CPACK_DEBIAN_MODULE_PACKAGE_SHLIBDEPS ON)
set(CPACK_COMPONENT_MODULE_DESCRIPTION "The module itself
A plug-in that opens stored FLV files, finds the segment that holds a time
or a byte without reading the file through, delivers its tags, and records
live streams into files that others play while they grow.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME flvadaptor-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "flvadaptor (= ${PROJECT_VERSION})")
set(CPACK_COMPONENT_DEV_DESCRIPTION "FLV storage module - what host writers need
The headers of the contract between the module and its hosts, with packages
for CMake and pkg-config that say where the module is.")

set(CPACK_DEBIAN_HOST_PACKAGE_NAME flvhost)
set(CPACK_DEBIAN_HOST_PACKAGE_SECTION video)
set(CPACK_DEBIAN_HOST_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_HOST_PACKAGE_DEPENDS "flvadaptor (= ${PROJECT_VERSION}), libcurl4")
set(CPACK_COMPONENT_HOST_DESCRIPTION "command line for FLV files
Inspects, checks, seeks in and plays FLV files, damaged ones too, records
live streams from a pipe and follows files that are being recorded. It
drives the FLV storage module exactly as a streaming server does.")

# What Debian wants of every package.
set(package_docs ${PROJECT_BINARY_DIR}/package-docs)
string(TIMESTAMP package_date "%a, %d %b %Y 00:00:00 +0000" UTC)
foreach(component module dev host)
  string(TOUPPER ${component} upper)
  set(package ${CPACK_DEBIAN_${upper}_PACKAGE_NAME})
  configure_file(cmake/changelog.in ${package_docs}/${package}/changelog @ONLY)
  execute_process(COMMAND gzip -9nf ${package_docs}/${package}/changelog)
  install(FILES ${package_docs}/${package}/changelog.gz cmake/copyright
          DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${package} COMPONENT ${component})
endforeach()

include(CPack)
