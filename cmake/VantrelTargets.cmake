# vantrel_library(NAME DIR): one static library per subsystem, from every source in DIR.
function(vantrel_library name)
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp ${CMAKE_CURRENT_SOURCE_DIR}/*.h)
  add_library(${name} STATIC ${sources})
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR}/src)
  target_link_libraries(${name} PRIVATE vantrel_warnings)
endfunction()

# vantrel_test(NAME SOURCES... LIBS ... LABELS ... FIXTURES ...): a GoogleTest executable whose
# cases each become a ctest test, so every case runs in a process of its own (fresh settings,
# fresh paths).
function(vantrel_test name)
  cmake_parse_arguments(T "" "TIMEOUT" "SOURCES;LIBS;LABELS;FIXTURES" ${ARGN})
  add_executable(${name} ${T_SOURCES})
  target_link_libraries(${name} PRIVATE ${T_LIBS} vantrel_test_support GTest::gtest vantrel_warnings)
  if(NOT T_TIMEOUT)
    set(T_TIMEOUT 120)
  endif()
  set(props TIMEOUT ${T_TIMEOUT})
  if(T_LABELS)
    list(APPEND props LABELS "${T_LABELS}")
  endif()
  if(T_FIXTURES)
    set(env "VANTREL_FIXTURE_DIR=${VANTREL_FIXTURE_DIR}")
    if("xvfb" IN_LIST T_FIXTURES)
      list(APPEND env "DISPLAY=${VANTREL_TEST_DISPLAY}")
    else()
      list(APPEND env "DISPLAY=")
    endif()
    if("pulse" IN_LIST T_FIXTURES)
      list(APPEND env "PULSE_SERVER=${VANTREL_TEST_PULSE_SERVER}")
    endif()
    # gtest_discover_tests (CMake 3.25) flattens a list-valued ENVIRONMENT into separate
    # property names, so only the first variable would arrive. The test executor it honours runs
    # both the listing and every case through env with all of them.
    find_program(ENV_PROGRAM env REQUIRED)
    set_target_properties(${name} PROPERTIES CROSSCOMPILING_EMULATOR "${ENV_PROGRAM};${env}")
  endif()
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST PROPERTIES ${props})
  if(T_FIXTURES)
    # The fixture lists are set by a script of their own that ctest runs after the discovery:
    # gtest_discover_tests would flatten a list of two fixtures into a fixture and a stray
    # property name. Tests that share a server run one at a time, so one test's keys or sounds
    # never reach another.
    set(script "${CMAKE_CURRENT_BINARY_DIR}/${name}_fixtures.cmake")
    file(WRITE "${script}" "foreach(test IN LISTS ${name}_TESTS)\n"
      "  set_tests_properties(\"\${test}\" PROPERTIES FIXTURES_REQUIRED [==[${T_FIXTURES}]==]\n"
      "    RESOURCE_LOCK [==[${T_FIXTURES}]==])\n"
      "endforeach()\n")
    set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES "${script}")
  endif()
endfunction()
