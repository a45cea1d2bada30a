# How every target of the project is compiled, in one place.

add_library(nfslib_build_flags INTERFACE)
target_compile_options(
  nfslib_build_flags
  INTERFACE -Wall
            -Wextra
            -Wpedantic
            -Wshadow
            -Wconversion
            -Wnon-virtual-dtor
            -Woverloaded-virtual
            -Wold-style-cast
            $<$<BOOL:${NFSLIB_WERROR}>:-Werror>)
if(NFSLIB_SANITIZE)
  target_compile_options(
    nfslib_build_flags INTERFACE -fsanitize=${NFSLIB_SANITIZE} -fno-sanitize-recover=all
                                 -fno-omit-frame-pointer)
  target_link_options(nfslib_build_flags INTERFACE -fsanitize=${NFSLIB_SANITIZE})
endif()

# The public headers alone: what a host is compiled against.
add_library(nfslib_headers INTERFACE)
target_include_directories(nfslib_headers INTERFACE $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>)

# nfslib_add_part(NAME SOURCES ... LINKS ...): one folder of src/, compiled once, linked into the
# shared library and, as it is, into the unit tests.
function(nfslib_add_part name)
  cmake_parse_arguments(PART "" "" "SOURCES;LINKS" ${ARGN})
  add_library(nfslib_${name} STATIC ${PART_SOURCES})
  target_include_directories(nfslib_${name} PUBLIC ${PROJECT_SOURCE_DIR}/src)
  target_link_libraries(
    nfslib_${name}
    PUBLIC nfslib_headers ${PART_LINKS} Threads::Threads
    PRIVATE nfslib_build_flags)
  set_property(GLOBAL APPEND PROPERTY NFSLIB_PARTS nfslib_${name})
endfunction()

# nfslib_add_host(NAME SOURCES ... LINKS ...): a reference host. It sees the public headers only, and
# takes the library from the program that it is linked into.
function(nfslib_add_host name)
  cmake_parse_arguments(HOST "" "" "SOURCES;LINKS" ${ARGN})
  add_library(nfslib_host_${name} STATIC ${HOST_SOURCES})
  target_include_directories(nfslib_host_${name} PUBLIC ${PROJECT_SOURCE_DIR}/hosts)
  target_link_libraries(
    nfslib_host_${name}
    PUBLIC nfslib_headers ${HOST_LINKS}
    PRIVATE nfslib_build_flags)
endfunction()

# nfslib_add_test(NAME [NETWORK] SOURCES ... LINKS ...): a GoogleTest program, one line of ctest. With
# NETWORK it runs on a loopback network of its own, where every port is free.
function(nfslib_add_test name)
  cmake_parse_arguments(TEST "NETWORK" "" "SOURCES;LINKS" ${ARGN})
  add_executable(${name} ${TEST_SOURCES})
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests)
  target_link_libraries(${name} PRIVATE ${TEST_LINKS} GTest::gmock GTest::gtest GTest::gtest_main
                                        nfslib_build_flags)
  if(TEST_NETWORK)
    add_test(NAME ${name} COMMAND ${PROJECT_SOURCE_DIR}/tests/support/private_network.sh
                                  $<TARGET_FILE:${name}>)
  else()
    add_test(NAME ${name} COMMAND ${name})
  endif()
  set_tests_properties(${name} PROPERTIES TIMEOUT 600)
endfunction()
