# Flags and the small functions that the CMakeLists.txt of the folders are written with.

add_library(orvan_flags INTERFACE)
target_include_directories(orvan_flags INTERFACE $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>)
target_compile_definitions(orvan_flags INTERFACE QT_NO_KEYWORDS)
target_compile_options(orvan_flags INTERFACE -Wall -Wextra -Wshadow -Wconversion -Wnon-virtual-dtor
  $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>)
if(ORVAN_WARNINGS_AS_ERRORS)
  target_compile_options(orvan_flags INTERFACE -Werror)
endif()

if(ORVAN_SANITIZE STREQUAL "address")
  set(_sanitize -fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
elseif(ORVAN_SANITIZE STREQUAL "fuzz")
  # The libraries count their branches for libFuzzer; only the targets in tests/fuzz link its main().
  set(_sanitize -fsanitize=address,undefined,fuzzer-no-link -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
elseif(ORVAN_SANITIZE STREQUAL "thread")
  set(_sanitize -fsanitize=thread -fno-omit-frame-pointer)
elseif(NOT ORVAN_SANITIZE STREQUAL "")
  message(FATAL_ERROR "ORVAN_SANITIZE is empty, address, fuzz or thread, not '${ORVAN_SANITIZE}'")
else()
  set(_sanitize)
endif()
# Everything in the tree is built with the same sanitizer, or none of it.
add_compile_options(${_sanitize})
add_link_options(${_sanitize})

# orvan_folder(<name> <sources and headers> [INTERNAL <headers that are not installed>])
#
# One OBJECT target for the folder. A name that begins with orvan_support joins liborvan_support.so,
# any other liborvan_net.so. Headers outside INTERNAL are installed under orvan/, at the place that
# they have below libs/.
function(orvan_folder name)
  cmake_parse_arguments(arg "" "" "INTERNAL" ${ARGN})
  add_library(${name} OBJECT ${arg_UNPARSED_ARGUMENTS} ${arg_INTERNAL})
  target_link_libraries(${name} PRIVATE orvan_flags)
  target_compile_definitions(${name} PRIVATE QT_NO_CAST_FROM_ASCII QT_NO_CAST_TO_ASCII)
  if(name MATCHES "^orvan_support")
    set(library orvan_support)
    target_link_libraries(${name} PRIVATE Qt5::Core PkgConfig::MINIZIP Threads::Threads)
  else()
    set(library orvan_net)
    target_link_libraries(${name} PRIVATE Qt5::Core Qt5::Network Qt5Keychain::Qt5Keychain Boost::headers
      Threads::Threads)
  endif()
  set_property(GLOBAL APPEND PROPERTY ${library}_OBJECTS $<TARGET_OBJECTS:${name}>)
  set(headers ${arg_UNPARSED_ARGUMENTS})
  list(FILTER headers INCLUDE REGEX "\\.h$")
  file(RELATIVE_PATH where ${PROJECT_SOURCE_DIR}/libs ${CMAKE_CURRENT_SOURCE_DIR})
  list(TRANSFORM arg_INTERNAL PREPEND ${where}/)
  set_property(GLOBAL APPEND PROPERTY ORVAN_INTERNAL_HEADERS ${arg_INTERNAL})
  if(headers)
    install(FILES ${headers} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/orvan/${where} COMPONENT Development)
    list(TRANSFORM headers PREPEND ${where}/)
    set_property(GLOBAL APPEND PROPERTY ORVAN_INSTALLED_HEADERS ${headers})
  endif()
endfunction()

# orvan_test(<name> <sources> [WRAPPER <command...>] [LABELS <labels>] [TIMEOUT <seconds>] [LINK <targets>])
#
# One test program on GoogleTest, run as one CTest entry, inside WRAPPER if one is given. main() comes from
# the test bed (tests/support/test_main.cpp), unless one of the sources has its own.
function(orvan_test name)
  cmake_parse_arguments(arg "" "TIMEOUT" "WRAPPER;LABELS;LINK" ${ARGN})
  add_executable(${name} ${arg_UNPARSED_ARGUMENTS})
  target_link_libraries(${name} PRIVATE orvan_flags orvan_test_support orvan_net orvan_support ${arg_LINK}
    GTest::gmock GTest::gtest)
  add_test(NAME ${name} COMMAND ${ORVAN_TEST_LAUNCHER} ${arg_WRAPPER} $<TARGET_FILE:${name}>)
  if(NOT arg_TIMEOUT)
    set(arg_TIMEOUT 300)
  endif()
  set_tests_properties(${name} PROPERTIES TIMEOUT ${arg_TIMEOUT} LABELS "${arg_LABELS}"
    ENVIRONMENT "${ORVAN_TEST_ENVIRONMENT}")
endfunction()
