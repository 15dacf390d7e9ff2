# l3vpn_library(name SOURCES ... LIBS ...): a static library of the tree with
# the project's warnings and the tree root on the include path.
function(l3vpn_library name)
  cmake_parse_arguments(A "" "" "SOURCES;LIBS" ${ARGN})
  add_library(${name} STATIC ${A_SOURCES})
  target_include_directories(${name} PUBLIC ${CMAKE_SOURCE_DIR} ${CMAKE_BINARY_DIR}/proto)
  target_compile_options(${name} PRIVATE ${L3VPN_WARN})
  target_link_libraries(${name} PUBLIC ${A_LIBS})
endfunction()

# l3vpn_test(name SOURCES ... LIBS ...): one GoogleTest executable under CTest.
function(l3vpn_test name)
  cmake_parse_arguments(A "" "TIMEOUT" "SOURCES;LIBS" ${ARGN})
  add_executable(${name} ${A_SOURCES})
  target_include_directories(${name} PRIVATE ${CMAKE_SOURCE_DIR} ${CMAKE_SOURCE_DIR}/tests)
  target_compile_options(${name} PRIVATE ${L3VPN_WARN})
  target_link_libraries(${name} PRIVATE ${A_LIBS} GTest::gtest GTest::gtest_main pthread)
  if(NOT A_TIMEOUT)
    set(A_TIMEOUT 120)
  endif()
  add_test(NAME ${name} COMMAND ${name})
  set_tests_properties(${name} PROPERTIES TIMEOUT ${A_TIMEOUT}
    ENVIRONMENT "L3VPN_BUILD_DIR=${CMAKE_BINARY_DIR};L3VPN_SOURCE_DIR=${CMAKE_SOURCE_DIR}")
endfunction()
