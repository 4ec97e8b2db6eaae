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

# vantrel_test_cases(NAME PREFIX FIXTURES...): registers the cases of test executable NAME with
# ctest under PREFIX, with the environment and locks its fixtures call for (see vantrel_test).
function(vantrel_test_cases name prefix)
  cmake_parse_arguments(T "SERIAL" "TIMEOUT" "LABELS;FIXTURES;LOCKS" ${ARGN})
  # gtest_discover_tests flattens the values of PROPERTIES, so a value that is a list (two
  # fixtures, several environment entries) would fall apart there. Those properties are set by a
  # small script that ctest runs after the discovered tests are added.
  # A case that GTEST_SKIPs (its fixture is missing) shows in ctest as skipped, not passed.
  set(props " SKIP_REGULAR_EXPRESSION [==[\\[  SKIPPED \\]]==]")
  set(labels ${T_LABELS})
  if("service_pair" IN_LIST T_FIXTURES)
    # Needs Ceph: run by `scripts/test --stores`, not by every test run.
    list(APPEND labels stores)
  endif()
  if(labels)
    string(APPEND props " LABELS [==[${labels}]==]")
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
    set(required ${T_FIXTURES})
    if("service_pair" IN_LIST T_FIXTURES)
      # The pair's stores stay up until its last test is done.
      list(APPEND required postgres s3)
    endif()
    string(APPEND props " FIXTURES_REQUIRED [==[${required}]==]")
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
    if("service_pair" IN_LIST T_FIXTURES)
      # The same variables name the pair behind its one address; the test's own servers are
      # given a database and a place in the bucket of their own (VANTREL_TEST_POSTGRES,
      # VANTREL_TEST_S3_ENV).
      list(APPEND env "VANTREL_TEST_SERVICE_URL=${VANTREL_TEST_PAIR_URL}"
        "VANTREL_TEST_SERVICE_CA=${VANTREL_TEST_PAIR_CA}"
        "VANTREL_TEST_SERVICE_DATA=${VANTREL_TEST_PAIR_DATA}"
        "VANTREL_TEST_SERVICE_BIN=${VANTREL_TEST_SERVICE_BIN}"
        "VANTREL_TEST_POSTGRES=${VANTREL_TEST_POSTGRES}"
        "VANTREL_TEST_S3_ENV=${VANTREL_TEST_S3_ENV}")
      add_dependencies(${name} vantrel-service)
    elseif("postgres" IN_LIST T_FIXTURES)
      # Service processes of the test's own on the fixture's PostgreSQL, files in their folders.
      list(APPEND env "VANTREL_TEST_POSTGRES=${VANTREL_TEST_POSTGRES}"
        "VANTREL_TEST_SERVICE_BIN=${VANTREL_TEST_SERVICE_BIN}")
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
  string(MAKE_C_IDENTIFIER "${name}_${prefix}" list)
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST TEST_PREFIX "${prefix}" TEST_LIST ${list}
    PROPERTIES TIMEOUT ${T_TIMEOUT})
  if(props)
    set(script "${CMAKE_CURRENT_BINARY_DIR}/${list}_properties.cmake")
    file(WRITE "${script}"
      "if(${list})\n  set_tests_properties(\${${list}} PROPERTIES${props})\nendif()\n")
    set_property(DIRECTORY APPEND PROPERTY TEST_INCLUDE_FILES "${script}")
  endif()
endfunction()

# vantrel_test(NAME [GUI|WINDOWS] [SERIAL] [SHARED_STORES] SOURCES... LIBS ... LABELS ...
# FIXTURES ... LOCKS ...): a GoogleTest executable whose cases each become a ctest test, so every
# case runs in a process of its own (fresh settings, fresh paths). SERIAL cases run with no other
# test beside them: those that measure real-time rates against a drawing or playing child, which
# a second test starves. SHARED_STORES runs the cases of a test of the "service" fixture a second
# time, named "shared.CASE", against the service on PostgreSQL and S3 (fixture "service_pair").
function(vantrel_test name)
  cmake_parse_arguments(T "GUI;WINDOWS;SERIAL;SHARED_STORES" "TIMEOUT"
    "SOURCES;LIBS;LABELS;FIXTURES;LOCKS" ${ARGN})
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
  set(serial "")
  if(T_SERIAL)
    set(serial SERIAL)
  endif()
  vantrel_test_cases(${name} "" ${serial} TIMEOUT ${T_TIMEOUT} LABELS ${T_LABELS}
    FIXTURES ${T_FIXTURES} LOCKS ${T_LOCKS})
  if(T_SHARED_STORES)
    set(fixtures ${T_FIXTURES})
    list(TRANSFORM fixtures REPLACE "^service$" "service_pair")
    vantrel_test_cases(${name} "shared." ${serial} TIMEOUT ${T_TIMEOUT} LABELS ${T_LABELS}
      FIXTURES ${fixtures} LOCKS ${T_LOCKS})
  endif()
endfunction()
