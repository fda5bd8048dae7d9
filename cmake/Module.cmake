# libflvadaptor.so: only ever loaded at run time, so it carries no soname and leaves no symbol open. What it shows
# is in flvadaptor.map.

set(map ${PROJECT_SOURCE_DIR}/cmake/flvadaptor.map)
add_library(flvadaptor MODULE $<TARGET_OBJECTS:flv_contract> $<TARGET_OBJECTS:flv_engine>)
target_link_libraries(flvadaptor PRIVATE flv_server)
set_target_properties(flvadaptor PROPERTIES LINKER_LANGUAGE CXX NO_SONAME ON LINK_DEPENDS ${map}
                                            LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR})
flv_apply_options(flvadaptor)
target_link_options(flvadaptor PRIVATE -Wl,--version-script=${map})
if(NOT FLV_SANITIZE)
  target_link_options(flvadaptor PRIVATE -Wl,-z,defs)  # The sanitizers' own symbols come from the program.
endif()
