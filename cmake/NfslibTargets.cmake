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

# The public headers alone: what a host is compiled against. Everything in that folder is public.
file(GLOB nfslib_public_headers CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/include/nfslib/*.h")
add_library(nfslib_headers INTERFACE)
target_sources(
  nfslib_headers INTERFACE FILE_SET HEADERS BASE_DIRS "${PROJECT_SOURCE_DIR}/include"
                           FILES ${nfslib_public_headers})
target_compile_features(nfslib_headers INTERFACE cxx_std_20)
set_target_properties(nfslib_headers PROPERTIES EXPORT_NAME headers)

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

# nfslib_add_host(NAME SOURCES ... LINKS ...): a reference host, nfslib::NAME. Its public header is
# <nfslib/hosts/NAME_file_system.h>. It sees the public headers only; in the tree it takes the library
# from the program that it is linked into, and once installed it brings it along. Installed, it is the
# component NAME of the package, which finds the packages of LINKS again.
function(nfslib_add_host name)
  cmake_parse_arguments(HOST "" "" "SOURCES;LINKS" ${ARGN})
  set(target nfslib_host_${name})
  add_library(${target} STATIC ${HOST_SOURCES})
  add_library(nfslib::${name} ALIAS ${target})
  target_sources(
    ${target}
    PUBLIC FILE_SET HEADERS BASE_DIRS "${PROJECT_SOURCE_DIR}/hosts/include" FILES
           "${PROJECT_SOURCE_DIR}/hosts/include/nfslib/hosts/${name}_file_system.h")
  target_include_directories(${target} PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/hosts>)
  target_link_libraries(
    ${target}
    PUBLIC nfslib_headers ${HOST_LINKS} $<INSTALL_INTERFACE:nfslib::nfslib>
    PRIVATE $<BUILD_INTERFACE:nfslib_build_flags>)
  set_target_properties(${target} PROPERTIES OUTPUT_NAME nfslib_${name} EXPORT_NAME ${name}
                                             NFSLIB_LINKS "${HOST_LINKS}")
  set_property(GLOBAL APPEND PROPERTY NFSLIB_HOSTS ${name})
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
