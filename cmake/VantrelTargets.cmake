# vantrel_library(NAME [SUBDIRS dir...]): one static library per stage, from every source in the
# current folder and in the named sub-folders (a capture backend each).
function(vantrel_library name)
  cmake_parse_arguments(L "" "" "SUBDIRS" ${ARGN})
  set(dirs ${CMAKE_CURRENT_SOURCE_DIR})
  foreach(sub ${L_SUBDIRS})
    list(APPEND dirs ${CMAKE_CURRENT_SOURCE_DIR}/${sub})
  endforeach()
  set(sources "")
  foreach(dir ${dirs})
    file(GLOB found CONFIGURE_DEPENDS ${dir}/*.cpp ${dir}/*.h)
    list(APPEND sources ${found})
  endforeach()
  add_library(${name} STATIC ${sources})
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR}/src)
  target_link_libraries(${name} PRIVATE vantrel_warnings)
endfunction()

# vantrel_test(NAME [GUI|WINDOWS] [SERIAL] SOURCES... LIBS ... LABELS ... FIXTURES ... LOCKS ...):
# a GoogleTest executable whose cases each become a ctest test, so every case runs in a process
# of its own (fresh settings, fresh paths). SERIAL cases run with no other test beside them:
# those that measure real-time rates against a drawing or playing child, which a second test
# starves.
function(vantrel_test name)
  cmake_parse_arguments(T "GUI;WINDOWS;SERIAL" "TIMEOUT" "SOURCES;LIBS;LABELS;FIXTURES;LOCKS" ${ARGN})
  add_executable(${name} ${T_SOURCES})
  # GUI tests get a main() that makes a QApplication (WINDOWS ones on the fixture's X server);
  # the rest use GoogleTest's own.
  if(T_GUI)
    set(test_main vantrel_gui_test_main)
  elseif(T_WINDOWS)
    set(test_main vantrel_window_test_main)
  else()
    set(test_main GTest::gtest_main)
  endif()
  target_link_libraries(${name} PRIVATE ${T_LIBS} vantrel_test_support ${test_main} vantrel_warnings)
  if(VANTREL_SANITIZE STREQUAL "thread")
    # Tells ThreadSanitizer about the hand-overs Qt's futures make out of its sight.
    target_sources(${name} PRIVATE ${PROJECT_SOURCE_DIR}/tests/support/FutureHandOver.cpp)
  endif()
  # The ThreadSanitizer build runs only the threaded tests, so it builds only them.
  if("threads" IN_LIST T_LABELS)
    if(NOT TARGET thread_tests)
      add_custom_target(thread_tests)
    endif()
    add_dependencies(thread_tests ${name})
  endif()
  if(NOT T_TIMEOUT)
    set(T_TIMEOUT 120)
  endif()
  # gtest_discover_tests flattens the values of PROPERTIES, so a value that is a list (two
  # fixtures, several environment entries) would fall apart there. Those properties are set by a
  # small script that ctest runs after the discovered tests are added.
  # A case that GTEST_SKIPs (its fixture is missing) shows in ctest as skipped, not passed.
  set(props " SKIP_REGULAR_EXPRESSION [==[\\[  SKIPPED \\]]==]")
  if(T_LABELS)
    string(APPEND props " LABELS [==[${T_LABELS}]==]")
  endif()
  if(T_SERIAL)
    string(APPEND props " RUN_SERIAL TRUE")
  endif()
  # Tests that share a server run one at a time, so one test's keys or sounds never reach
  # another.
  # LOCKS adds resources of other kinds: "encoder" for the tests that encode a whole screen in
  # real time, which starve each other (and drop audio) when two run at once on two cores.
  set(locks ${T_FIXTURES} ${T_LOCKS})
  if(locks)
    string(APPEND props " RESOURCE_LOCK [==[${locks}]==]")
  endif()
  if(T_FIXTURES)
    string(APPEND props " FIXTURES_REQUIRED [==[${T_FIXTURES}]==]")
    set(env "VANTREL_FIXTURE_DIR=${VANTREL_FIXTURE_DIR}")
    if("xvfb" IN_LIST T_FIXTURES)
      list(APPEND env "DISPLAY=${VANTREL_TEST_DISPLAY}")
    elseif("desktop" IN_LIST T_FIXTURES)
      list(APPEND env "DISPLAY=${VANTREL_DESKTOP_DISPLAY}")
    else()
      list(APPEND env "DISPLAY=")
    endif()
    if("keyring" IN_LIST T_FIXTURES)
      list(APPEND env "DBUS_SESSION_BUS_ADDRESS=${VANTREL_KEYRING_BUS}")
    endif()
    if("pulse" IN_LIST T_FIXTURES)
      list(APPEND env "PULSE_SERVER=${VANTREL_TEST_PULSE_SERVER}")
    endif()
    if("service" IN_LIST T_FIXTURES)
      list(APPEND env "VANTREL_TEST_SERVICE_URL=${VANTREL_TEST_SERVICE_URL}"
        "VANTREL_TEST_SERVICE_CA=${VANTREL_TEST_SERVICE_CA}"
        "VANTREL_TEST_SERVICE_DATA=${VANTREL_TEST_SERVICE_DATA}"
        "VANTREL_TEST_SERVICE_BIN=${VANTREL_TEST_SERVICE_BIN}")
      # The fixture starts the server binary, so a test of it needs it built.
      add_dependencies(${name} vantrel-service)
    endif()
    if("wayland" IN_LIST T_FIXTURES)
      # A client of the fixture's Wayland session: its runtime folder, compositor, bus and
      # PipeWire's pulse server; the script and folders let a test restart the session.
      set(w "${VANTREL_WAYLAND_DIR}")
      list(APPEND env "XDG_RUNTIME_DIR=${w}/run" "WAYLAND_DISPLAY=${w}/wayland-socket"
        "SWAYSOCK=${w}/sway-ipc.sock" "DBUS_SESSION_BUS_ADDRESS=unix:path=${w}/run/bus"
        "PULSE_SERVER=unix:${w}/run/pulse/native" "XDG_CURRENT_DESKTOP=sway"
        "XDG_SESSION_TYPE=wayland" "VANTREL_WAYLAND_SCRIPT=${VANTREL_WAYLAND_SCRIPT}"
        "VANTREL_WAYLAND_DIR=${w}" "VANTREL_WAYLAND_CACHE=${VANTREL_WAYLAND_CACHE}")
    endif()
    string(APPEND props " ENVIRONMENT [==[${env}]==]")
  endif()
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST TEST_LIST ${name}_TESTS
    PROPERTIES TIMEOUT ${T_TIMEOUT})
  if(props)
    set(script "${CMAKE_CURRENT_BINARY_DIR}/${name}_properties.cmake")
    file(WRITE "${script}"
      "if(${name}_TESTS)\n  set_tests_properties(\${${name}_TESTS} PROPERTIES${props})\nendif()\n")
    set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES "${script}")
  endif()
endfunction()
