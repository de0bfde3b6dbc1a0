# SPDX-License-Identifier: Apache-2.0
# Helpers shared by nuvra's CMake files.

# A GoogleTest executable of nuvra's tests, from the sources given; CTest lists each of its
# cases, with the CTest labels after LABELS. One executable per namespace folder keeps link
# times low.
#
#   nuvra_add_test_suite(nuvra_tiny_test clock_test.cpp ... LABELS concurrency)
#
# The label "concurrency" marks the suites that the ThreadSanitizer run takes.
function(nuvra_add_test_suite name)
    cmake_parse_arguments(PARSE_ARGV 1 suite "" "" "LABELS")
    add_executable(${name} ${suite_UNPARSED_ARGUMENTS})
    target_link_libraries(${name} PRIVATE nuvra_archive GTest::gtest GTest::gtest_main GTest::gmock)
    nuvra_set_warnings(${name})
    set(properties SKIP_REGULAR_EXPRESSION "\\[  SKIPPED \\]")
    if(suite_LABELS)
        list(APPEND properties LABELS "${suite_LABELS}")
    endif()
    gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST PROPERTIES ${properties})
endfunction()
