# How every target of the project is compiled and linked, said once.

add_library(tarn_options INTERFACE)
target_compile_options(tarn_options INTERFACE
  -Wall -Wextra -Wconversion -Wshadow -Werror -Wnon-virtual-dtor -Wold-style-cast
  -fno-plt -ffunction-sections -fdata-sections -fstack-protector-strong)
target_compile_definitions(tarn_options INTERFACE _GNU_SOURCE _FILE_OFFSET_BITS=64 _TIME_BITS=64)
target_include_directories(tarn_options INTERFACE ${CMAKE_SOURCE_DIR})
target_link_options(tarn_options INTERFACE -Wl,--gc-sections)
include(SharedRuntime)
if(TARN_SANITIZE)
  # The check of virtual tables opens a pipe to look at memory, and reports a fault where tests take all descriptors away.
  target_compile_options(tarn_options INTERFACE -fsanitize=address,undefined -fno-sanitize=vptr -fno-sanitize-recover=all
    -fno-omit-frame-pointer)
  target_link_options(tarn_options INTERFACE -fsanitize=address,undefined)
endif()

# tarn_library(name SOURCES a.cc b.cc LINK other ...): one folder's library and the libraries it may use.
function(tarn_library name)
  cmake_parse_arguments(arg "" "" "SOURCES;LINK" ${ARGN})
  add_library(${name} STATIC ${arg_SOURCES})
  target_link_libraries(${name} PUBLIC $<BUILD_INTERFACE:tarn_options> ${arg_LINK})
endfunction()

# tarn_program(name SOURCES ... LINK ...): a program of the image. It is linked whole, so that it starts in an image
# that holds no libraries; sanitizers need the dynamic loader, so their builds stay dynamic.
function(tarn_program name)
  cmake_parse_arguments(arg "" "" "SOURCES;LINK" ${ARGN})
  add_executable(${name} ${arg_SOURCES} ${CMAKE_SOURCE_DIR}/platform/terminate.cc)
  target_link_libraries(${name} PRIVATE tarn_options ${arg_LINK})
  if(NOT TARN_SANITIZE AND NOT TARN_SHARED_RUNTIME)
    target_link_options(${name} PRIVATE -static)
  endif()
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)
endfunction()

# tarn_test(name SOURCES ... LINK ...): one GoogleTest program, one CTest entry.
function(tarn_test name)
  cmake_parse_arguments(arg "" "" "SOURCES;LINK" ${ARGN})
  add_executable(${name} ${arg_SOURCES})
  target_link_libraries(${name} PRIVATE tarn_test_main ${arg_LINK})
  # What is tested is optimised; the tests themselves are not worth the compiler's time.
  target_compile_options(${name} PRIVATE -O0)
  target_precompile_headers(${name} REUSE_FROM tarn_test_main)
  if(CMAKE_CROSSCOMPILING)
    target_link_options(${name} PRIVATE -static)
  endif()
  add_test(NAME ${name} COMMAND ${name} WORKING_DIRECTORY ${CMAKE_SOURCE_DIR})
  set_tests_properties(${name} PROPERTIES TIMEOUT 300 LABELS unit)
endfunction()
