# What a host writer gets: the module in a folder of its own, the contract's headers, and a package for CMake and
# pkg-config that tell where both are. `include/flvadaptor` is the include root, as `src` is here.

include(CMakePackageConfigHelpers)

set(plugins_dir ${CMAKE_INSTALL_LIBDIR}/flvadaptor)
set(headers_dir ${CMAKE_INSTALL_INCLUDEDIR}/flvadaptor)
set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/flvadaptor)

install(TARGETS flvadaptor LIBRARY DESTINATION ${plugins_dir} COMPONENT module)
if(TARGET flvhost)
  install(TARGETS flvhost RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT host)
  set(manual ${PROJECT_BINARY_DIR}/host/manual)
  install(DIRECTORY ${manual}/ DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT host FILES_MATCHING PATTERN *.1.gz)
  install(FILES ${manual}/flvhost.bash DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
          RENAME flvhost COMPONENT host)
  install(FILES ${manual}/_flvhost DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions COMPONENT host)
endif()

# The contract, the exceptions that may reach a host, and what these include. tests/package compiles each of them
# alone, out of an installed tree.
install(DIRECTORY src/modules/streams/contract DESTINATION ${headers_dir}/modules/streams COMPONENT dev
        FILES_MATCHING PATTERN *.h)
foreach(header platform/Types.h util/KTObject.h util/KTString.h util/KTStringPool.h util/KTText.h util/KTThrowable.h
               util/KTWideString.h)
  get_filename_component(folder ${header} DIRECTORY)
  install(FILES src/${header} DESTINATION ${headers_dir}/${folder} COMPONENT dev)
endforeach()

add_library(flvadaptor_headers INTERFACE)
set_target_properties(flvadaptor_headers PROPERTIES EXPORT_NAME headers)
target_compile_features(flvadaptor_headers INTERFACE cxx_std_17)
target_include_directories(flvadaptor_headers INTERFACE $<INSTALL_INTERFACE:${headers_dir}>)
install(TARGETS flvadaptor_headers EXPORT flvadaptor)
install(EXPORT flvadaptor NAMESPACE flvadaptor:: FILE flvadaptor-targets.cmake DESTINATION ${package_dir} COMPONENT dev)

configure_package_config_file(cmake/flvadaptor-config.cmake.in ${PROJECT_BINARY_DIR}/flvadaptor-config.cmake
                              INSTALL_DESTINATION ${package_dir} PATH_VARS plugins_dir)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/flvadaptor-config-version.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/flvadaptor-config.cmake ${PROJECT_BINARY_DIR}/flvadaptor-config-version.cmake
        DESTINATION ${package_dir} COMPONENT dev)

# The prefix is told relative to the file, so that an installed tree may be moved.
set(pc_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH prefix_from_pc /prefix/${pc_dir} /prefix)
configure_file(cmake/flvadaptor.pc.in ${PROJECT_BINARY_DIR}/flvadaptor.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/flvadaptor.pc DESTINATION ${pc_dir} COMPONENT dev)

# The docs and the examples.
file(GLOB pages CONFIGURE_DEPENDS docs/*.md)
install(FILES README.md ${pages} DESTINATION ${CMAKE_INSTALL_DOCDIR}-dev COMPONENT dev)
install(DIRECTORY docs/example DESTINATION ${CMAKE_INSTALL_DOCDIR}-dev COMPONENT dev)

include(Package)
