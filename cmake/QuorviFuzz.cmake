# The sanitizer build that fuzzing and CI use: clang, AddressSanitizer and
# UBSan on everything, with libFuzzer's coverage instrumentation, so that one
# build (build-sanitize) runs both the test suite and the fuzz targets.
#
#   cmake -S . -B build-sanitize -G Ninja -DCMAKE_CXX_COMPILER=clang++ -DQUORVI_FUZZ=ON
#
# Adding a fuzz target for a parser (in fuzz/CMakeLists.txt):
#
#   quorvi_fuzz_target(vcard SOURCES vcard_fuzz.cc DEPS quorvi_contacts)
#
# builds fuzz_vcard from a file that defines
#   extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
# (call the parser's public function on the bytes; return 0), and takes its
# seed inputs from fuzz/corpus/vcard/ (a few small, real-looking files; keep a
# crash's reproducer there once it is fixed). `make fuzz` and the CI smoke run
# (fuzz/run) pick every target up by itself.
option(QUORVI_FUZZ "Sanitizer build with the libFuzzer targets (clang only)" OFF)

if(QUORVI_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    message(FATAL_ERROR "QUORVI_FUZZ needs clang (-DCMAKE_CXX_COMPILER=clang++)")
  endif()
  add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=undefined
                      -fno-omit-frame-pointer -g)
  add_link_options(-fsanitize=address,undefined)
  add_custom_target(fuzz_targets)
endif()

# quorvi_fuzz_target(NAME SOURCES... DEPS...): the libFuzzer executable fuzz_NAME.
function(quorvi_fuzz_target name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS" ${ARGN})
  add_executable(fuzz_${name} ${ARG_SOURCES})
  target_link_libraries(fuzz_${name} PRIVATE ${ARG_DEPS})
  target_link_options(fuzz_${name} PRIVATE -fsanitize=fuzzer)
  add_dependencies(fuzz_targets fuzz_${name})
endfunction()
