# The fuzz build: the libFuzzer harnesses of tests/fuzz and only the libraries they reach, never
# the program, the unit tests or the benchmarks. The libraries are instrumented for coverage and
# the sanitizers without libFuzzer's main (fuzzer-no-link); only the harnesses link libFuzzer.
if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  message(FATAL_ERROR "VANTREL_FUZZ needs clang (scripts/fuzz configures build-fuzz/ with clang-15)")
endif()
if(NOT VANTREL_SANITIZE STREQUAL "")
  message(FATAL_ERROR "VANTREL_FUZZ brings its own sanitizers; leave VANTREL_SANITIZE empty")
endif()

# -O1 with line tables, as OSS-Fuzz builds: quick to compile, quick enough to run, and every frame
# of a report has its line. (scripts/fuzz configures without a build type, so nothing overrides
# these.)
add_compile_options(-O1 -gline-tables-only -fno-omit-frame-pointer
  -fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=undefined)
add_link_options(-fsanitize=address,undefined)

# What the harnesses link, and what those libraries link in turn (input needs xcb, update needs
# cloud).
foreach(library core xcb cloud update input media service)
  add_subdirectory(src/${library})
endforeach()

enable_testing()
add_subdirectory(tests/fuzz)
