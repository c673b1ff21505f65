# Decides which backends to build and finds what each one needs.
find_package(OpenMP REQUIRED COMPONENTS CXX)
find_package(PkgConfig REQUIRED)
pkg_check_modules(FFTW3F REQUIRED IMPORTED_TARGET fftw3f)
find_library(FFTW3F_OMP_LIB NAMES fftw3f_omp HINTS ${FFTW3F_LIBRARY_DIRS} REQUIRED)

set(PICKORA_WITH_CUDA OFF)
if(PICKORA_CUDA STREQUAL "ON" OR PICKORA_CUDA STREQUAL "AUTO")
  include(CheckLanguage)
  check_language(CUDA)
  if(CMAKE_CUDA_COMPILER)
    if(NOT DEFINED CMAKE_CUDA_ARCHITECTURES)
      # sm_90 (H100/H200) plus the common workstation generations; override with
      # -DCMAKE_CUDA_ARCHITECTURES=... to build faster or for another card.
      set(CMAKE_CUDA_ARCHITECTURES "80;86;90" CACHE STRING "CUDA architectures")
      message(STATUS "pickora: CMAKE_CUDA_ARCHITECTURES defaults to ${CMAKE_CUDA_ARCHITECTURES}")
    endif()
    enable_language(CUDA)
    set(CMAKE_CUDA_STANDARD 17)
    set(CMAKE_CUDA_STANDARD_REQUIRED ON)
    find_package(CUDAToolkit REQUIRED)
    set(PICKORA_WITH_CUDA ON)
  elseif(PICKORA_CUDA STREQUAL "ON")
    message(FATAL_ERROR "PICKORA_CUDA=ON but no CUDA compiler (nvcc) was found")
  endif()
endif()
message(STATUS "pickora: CPU backend ON, CUDA backend ${PICKORA_WITH_CUDA}")

set(PICKORA_WITH_NPP OFF)
if(PICKORA_WITH_CUDA AND TARGET CUDA::npps)
  set(PICKORA_WITH_NPP ON)
endif()

# Flags every pickora target shares. Contraction into fused multiply-adds is off on both
# sides, so that the fixed-order reductions agree to the bit between the backends; a fused
# operation is written out as fmaf where one is wanted.
add_library(pickora_flags INTERFACE)
target_compile_options(pickora_flags INTERFACE
  $<$<COMPILE_LANGUAGE:CXX>:-ffp-contract=off -Wall -Wextra -Wno-unused-parameter>
  $<$<COMPILE_LANGUAGE:CUDA>:-fmad=false --extended-lambda --expt-relaxed-constexpr -Xcompiler=-ffp-contract=off>)
if(PICKORA_SANITIZE)
  target_compile_options(pickora_flags INTERFACE
    $<$<COMPILE_LANGUAGE:CXX>:-fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined>)
  target_link_options(pickora_flags INTERFACE -fsanitize=address,undefined)
endif()
