# One static library a folder; `src` is the include root.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

find_program(CCACHE ccache)
if(CCACHE)
  set(CMAKE_CXX_COMPILER_LAUNCHER ${CCACHE})
endif()

add_library(flv_options INTERFACE)
target_include_directories(flv_options INTERFACE ${CMAKE_CURRENT_SOURCE_DIR}/src)
target_compile_options(flv_options INTERFACE -Wall -Wextra -Wpedantic -Wconversion -Wshadow)
# Hardening: a fault in here is to end the process before it can be used. The sanitizers bring checks of their own,
# and fortification needs an optimising build. tests/package/hardening.sh looks for each in what was built.
target_compile_options(flv_options INTERFACE -fcf-protection=full -fstack-clash-protection)
if(NOT FLV_SANITIZE)
  target_compile_options(flv_options INTERFACE -fstack-protector-strong
    $<$<CONFIG:Release,RelWithDebInfo,MinSizeRel>:-U_FORTIFY_SOURCE$<SEMICOLON>-D_FORTIFY_SOURCE=2>)
endif()
target_link_options(flv_options INTERFACE -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
  # A symbol that must be unique in the process would keep the module loaded for good.
  target_compile_options(flv_options INTERFACE -fno-gnu-unique)
endif()

# Applied by the targets below, after the cache options exist.
function(flv_apply_options target)
  target_link_libraries(${target} PUBLIC flv_options)
  if(FLV_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
      # gcc 12 sees these in the C++ library's own inlined code, where they are false.
      target_compile_options(${target} PRIVATE -Wno-error=restrict -Wno-error=stringop-overflow
                                               -Wno-error=array-bounds -Wno-error=maybe-uninitialized)
    endif()
  endif()
  if(FLV_SANITIZE)
    # Lines are all that a report needs. The leak check guesses where thread-local storage lies that a late
    # library got from the heap, and can guess wrong: there must be none.
    target_compile_options(${target} PRIVATE -fsanitize=${FLV_SANITIZE} -fno-sanitize-recover=all
                                             -fno-omit-frame-pointer -g1 -ftls-model=initial-exec)
    target_link_options(${target} PUBLIC -fsanitize=${FLV_SANITIZE})
  endif()
endfunction()

# flv_room(name folder [INCLUDE root] DEPENDS libs...): every source of the folder in one static library, flv_<name>.
# Its users include from `src`, and from `root` if one is given.
function(flv_room name folder)
  cmake_parse_arguments(ROOM "" "INCLUDE" "DEPENDS" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS ${folder}/*.cpp)
  if(sources)
    add_library(flv_${name} STATIC ${sources})
    target_link_libraries(flv_${name} PUBLIC ${ROOM_DEPENDS})
    target_include_directories(flv_${name} PUBLIC ${ROOM_INCLUDE})
    flv_apply_options(flv_${name})
  else()
    add_library(flv_${name} INTERFACE)
    target_link_libraries(flv_${name} INTERFACE flv_options ${ROOM_DEPENDS})
    target_include_directories(flv_${name} INTERFACE ${ROOM_INCLUDE})
  endif()
endfunction()

# flv_tests(name folder DEPENDS libs...): every source of the folder in one test program, <name>_tests.
function(flv_tests name folder)
  cmake_parse_arguments(TEST "" "" "DEPENDS" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS ${folder}/*.cpp)
  if(NOT sources)
    return()
  endif()
  add_executable(${name}_tests ${sources})
  target_link_libraries(${name}_tests PRIVATE ${TEST_DEPENDS} flv_test_support GTest::gmock_main)
  flv_apply_options(${name}_tests)
  # What is tested is optimised as it ships; the tests themselves are to build fast.
  target_compile_options(${name}_tests PRIVATE -O1)
  gtest_discover_tests(${name}_tests DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 120 LABELS ${name})
endfunction()
