# The device backend: the CUDA modules with cuBLAS and cuSOLVER when a CUDA
# toolkit is there, or, without one, stand-ins for the exported device
# interface generated from cpp/cuda/dravik_cuda.h and dravik_kit_cuda.h, so
# that the same host and binding sources build a module that needs no CUDA
# library at all.
#
#   DRAVIK_CUDA=AUTO (default)  CUDA when a toolkit with nvcc, cuBLAS and
#                               cuSOLVER is found, the CPU-only module otherwise
#   DRAVIK_CUDA=ON              CUDA or a configure error
#   DRAVIK_CUDA=OFF             the CPU-only module, whatever is installed
#
# The compiler comes from CMAKE_CUDA_COMPILER, else CUDACXX, else the
# toolkit's default place /usr/local/cuda/bin/nvcc, else nvcc on PATH.
#
# Included after find_package(Python); sets DRAVIK_WITH_CUDA and defines
# dravik_use_backend(target), which gives the module its device sources,
# libraries and definitions.

set(DRAVIK_CUDA AUTO CACHE STRING "Build the CUDA backend: AUTO, ON or OFF")
set_property(CACHE DRAVIK_CUDA PROPERTY STRINGS AUTO ON OFF)
string(TOUPPER "${DRAVIK_CUDA}" _dravik_cuda)
if(NOT _dravik_cuda MATCHES "^(AUTO|ON|OFF)$")
  message(FATAL_ERROR "DRAVIK_CUDA must be AUTO, ON or OFF, not '${DRAVIK_CUDA}'")
endif()

set(DRAVIK_WITH_CUDA OFF)
if(NOT _dravik_cuda STREQUAL "OFF")
  set(_named_compiler "$ENV{CUDACXX}")
  if(NOT DEFINED CMAKE_CUDA_COMPILER AND NOT DEFINED ENV{CUDACXX}
     AND EXISTS /usr/local/cuda/bin/nvcc)
    set(ENV{CUDACXX} /usr/local/cuda/bin/nvcc)
  endif()
  include(CheckLanguage)
  check_language(CUDA)
  if(CMAKE_CUDA_COMPILER)
    enable_language(CUDA)
    find_package(CUDAToolkit)
  endif()
  if(TARGET CUDA::cublas AND TARGET CUDA::cusolver)
    set(DRAVIK_WITH_CUDA ON)
  elseif(_named_compiler)
    message(FATAL_ERROR "CUDACXX=${_named_compiler} is not a working CUDA compiler of a toolkit with "
                        "cuBLAS and cuSOLVER; correct or unset it, or build the CPU-only module "
                        "with -DDRAVIK_CUDA=OFF (in a fresh build folder)")
  elseif(_dravik_cuda STREQUAL "ON")
    message(FATAL_ERROR "DRAVIK_CUDA=ON, but no CUDA toolkit with nvcc, cuBLAS and cuSOLVER "
                        "was found; name its compiler with CUDACXX or CMAKE_CUDA_COMPILER")
  endif()
endif()

if(DRAVIK_WITH_CUDA)
  message(STATUS "dravik: CUDA backend (${CMAKE_CUDA_COMPILER}, "
                 "architectures ${CMAKE_CUDA_ARCHITECTURES})")
else()
  message(NOTICE "dravik: building the CPU-only module (DRAVIK_CUDA=${DRAVIK_CUDA}; no CUDA "
                 "toolkit used): has_cuda() is false and CUDA arrays are refused")
endif()

function(dravik_use_backend target)
  if(DRAVIK_WITH_CUDA)
    file(GLOB device_sources CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/cpp/cuda/*.cu)
    target_sources(${target} PRIVATE ${device_sources})
    target_link_libraries(${target} PRIVATE CUDA::cudart_static CUDA::cublas CUDA::cusolver)
    # An installed module (pip) still finds cuBLAS and cuSOLVER in the toolkit.
    set_target_properties(${target} PROPERTIES INSTALL_RPATH "${CUDAToolkit_LIBRARY_DIR}")
  else()
    # Regenerated whenever a header changes, so every function they declare
    # has its stand-in.
    set(headers ${CMAKE_SOURCE_DIR}/cpp/cuda/dravik_cuda.h ${CMAKE_SOURCE_DIR}/cpp/cuda/dravik_kit_cuda.h)
    set(generator ${CMAKE_SOURCE_DIR}/scripts/cpu_stand_ins.py)
    set(stand_ins ${CMAKE_BINARY_DIR}/generated/dravik_cuda_stand_ins.cpp)
    add_custom_command(
      OUTPUT ${stand_ins}
      COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_BINARY_DIR}/generated
      COMMAND ${Python_EXECUTABLE} ${generator} ${headers} ${stand_ins}
      DEPENDS ${headers} ${generator}
      COMMENT "Generating the CPU-only stand-ins of the device interface"
      VERBATIM)
    target_sources(${target} PRIVATE ${stand_ins})
    target_compile_definitions(${target} PRIVATE DRAVIK_CPU_ONLY)
  endif()
endfunction()
