# One source tree, two libraries. Kernel files (*.cu) are compiled by nvcc for the CUDA
# backend and, through a generated one-line wrapper, as C++ for the CPU backend; plain host
# files (*.cpp) go into both. Only the CPU library links the host stand-in of src/host_device.
file(GLOB_RECURSE PICKORA_CU_SOURCES CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/src/*.cu)
file(GLOB_RECURSE PICKORA_CPP_SOURCES CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/src/*.cpp)
list(FILTER PICKORA_CPP_SOURCES EXCLUDE REGEX "/src/host_device/")
file(GLOB PICKORA_HOST_DEVICE_SOURCES CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/src/host_device/*.cpp)

# Wraps each kernel file in a .cpp that includes it, so g++ compiles it as C++ and reports
# keep the original file name.
function(pickora_cpu_wrappers out)
  set(wrappers "")
  foreach(cu IN LISTS ARGN)
    file(RELATIVE_PATH rel ${PROJECT_SOURCE_DIR} ${cu})
    set(wrapper ${PROJECT_BINARY_DIR}/cpu_sources/${rel}.cpp)
    file(CONFIGURE OUTPUT ${wrapper} CONTENT "#include \"${cu}\"\n")
    list(APPEND wrappers ${wrapper})
  endforeach()
  set(${out} ${wrappers} PARENT_SCOPE)
endfunction()

pickora_cpu_wrappers(PICKORA_CU_AS_CPP ${PICKORA_CU_SOURCES})

add_library(pickora_cpu STATIC ${PICKORA_CU_AS_CPP} ${PICKORA_CPP_SOURCES} ${PICKORA_HOST_DEVICE_SOURCES})
target_include_directories(pickora_cpu PUBLIC ${PROJECT_SOURCE_DIR}/include
                                              ${PROJECT_SOURCE_DIR}/src/host_device/include)
target_compile_definitions(pickora_cpu PUBLIC PICKORA_BACKEND_CUDA=0)
target_link_libraries(pickora_cpu PUBLIC pickora_flags OpenMP::OpenMP_CXX PkgConfig::FFTW3F ${FFTW3F_OMP_LIB} m)

set(PICKORA_BACKENDS cpu)
if(PICKORA_WITH_CUDA)
  add_library(pickora_cuda STATIC ${PICKORA_CU_SOURCES} ${PICKORA_CPP_SOURCES})
  target_include_directories(pickora_cuda PUBLIC ${PROJECT_SOURCE_DIR}/include)
  target_compile_definitions(pickora_cuda PUBLIC PICKORA_BACKEND_CUDA=1
                             PICKORA_WITH_NPP=$<BOOL:${PICKORA_WITH_NPP}>)
  target_compile_options(pickora_cuda PRIVATE $<$<COMPILE_LANGUAGE:CUDA>:-Xcompiler=-fopenmp>)
  target_link_libraries(pickora_cuda PUBLIC pickora_flags OpenMP::OpenMP_CXX CUDA::cudart CUDA::cufft m)
  if(PICKORA_WITH_NPP)
    target_link_libraries(pickora_cuda PUBLIC CUDA::npps)
  endif()
  list(APPEND PICKORA_BACKENDS cuda)
endif()

# Builds one executable per backend from the same sources: NAME on the CPU backend,
# NAME-cuda on the CUDA backend.
function(pickora_add_executable name)
  foreach(backend IN LISTS PICKORA_BACKENDS)
    set(target ${name})
    if(backend STREQUAL "cuda")
      set(target ${name}-cuda)
    endif()
    add_executable(${target} ${ARGN})
    target_link_libraries(${target} PRIVATE pickora_${backend})
    set_target_properties(${target} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/bin)
  endforeach()
endfunction()

file(GLOB PICKORA_MAIN_SOURCES CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/applications/pickora56/*.cpp)
if(PICKORA_MAIN_SOURCES)
  pickora_add_executable(pickora ${PICKORA_MAIN_SOURCES})
endif()

# The CTF determination command (the picker's command line doesn't reach the CTF toolkit).
pickora_add_executable(sorrel ${PROJECT_SOURCE_DIR}/applications/sorrel/main.cpp)

# The image toolkit's command: its file operations, one subcommand each. The tests run it too.
file(GLOB PICKORA_IMAGE_SOURCES CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/applications/pickora-image/*.cpp)
if(PICKORA_IMAGE_SOURCES)
  pickora_add_executable(pickora-image ${PICKORA_IMAGE_SOURCES})
  list(APPEND PICKORA_TOOL_TARGETS pickora-image)
endif()

# Companion tools: every folder tools/NAME with .cpp files becomes the executable pickora-NAME,
# on the CPU backend (the tools do their own work on the host).
file(GLOB PICKORA_TOOL_DIRS LIST_DIRECTORIES true CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/tools/*)
foreach(dir IN LISTS PICKORA_TOOL_DIRS)
  if(IS_DIRECTORY ${dir})
    get_filename_component(tool ${dir} NAME)
    file(GLOB tool_sources CONFIGURE_DEPENDS ${dir}/*.cpp)
    if(tool_sources)
      add_executable(pickora-${tool} ${tool_sources})
      target_include_directories(pickora-${tool} PRIVATE ${dir})
      target_link_libraries(pickora-${tool} PRIVATE pickora_cpu)
      set_target_properties(pickora-${tool} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/bin)
      list(APPEND PICKORA_TOOL_TARGETS pickora-${tool})
    endif()
  endif()
endforeach()

# pickora-view writes PNG pictures through libpng (its test reads them back, see tests/).
if(TARGET pickora-view)
  find_package(PNG REQUIRED)
  target_link_libraries(pickora-view PRIVATE PNG::PNG)
endif()
