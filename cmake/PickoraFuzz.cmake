# libFuzzer harnesses (tests/fuzz/fuzz_*.cpp), built with clang, ASan and UBSan:
#   cmake -S . -B build-fuzz -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_C_COMPILER=clang -DPICKORA_FUZZ=ON
# scripts/fuzz.sh does this and runs them.
if(NOT CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  message(FATAL_ERROR "PICKORA_FUZZ needs clang (libFuzzer): configure with -DCMAKE_CXX_COMPILER=clang++")
endif()
target_compile_options(pickora_flags INTERFACE -fsanitize=fuzzer-no-link,address,undefined -fno-omit-frame-pointer)
target_link_options(pickora_flags INTERFACE -fsanitize=address,undefined)

file(GLOB PICKORA_FUZZ_SOURCES CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/tests/fuzz/fuzz_*.cpp)
foreach(source IN LISTS PICKORA_FUZZ_SOURCES)
  get_filename_component(name ${source} NAME_WE)
  add_executable(${name} ${source} ${PROJECT_SOURCE_DIR}/tests/fuzz/harness.cpp)
  target_link_libraries(${name} PRIVATE pickora_cpu)
  target_link_options(${name} PRIVATE -fsanitize=fuzzer)
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/fuzz)
endforeach()
