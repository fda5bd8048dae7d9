# libflvadaptor.so: only ever loaded at run time, so it carries no soname and leaves no symbol open.

add_library(flvadaptor MODULE $<TARGET_OBJECTS:flv_contract> $<TARGET_OBJECTS:flv_engine>)
target_link_libraries(flvadaptor PRIVATE flv_server)
set_target_properties(flvadaptor PROPERTIES LINKER_LANGUAGE CXX NO_SONAME ON
                      LINK_DEPENDS ${PROJECT_SOURCE_DIR}/cmake/flvadaptor.map)
flv_apply_options(flvadaptor)
target_link_options(flvadaptor PRIVATE -Wl,--version-script=${PROJECT_SOURCE_DIR}/cmake/flvadaptor.map)
if(NOT FLV_SANITIZE)
  target_link_options(flvadaptor PRIVATE -Wl,-z,defs)
endif()
