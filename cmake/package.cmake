# Where the module lands. Every build lays out the package in a tree of its
# own, <build>/package/dravik/mirel/cones/cpp/, and generates the type stub
# _cpp_cuda.pyi there by importing the module as built (nanobind's stubgen).
# A build from the checkout (make build) then copies module and stub into
# the package tree under DRAVIK_PYTHON_DIR (python/, the package the tests
# and the demos import, or a variant build's staged copy) on every build, so
# that tree always holds the last-built variant; a pip build
# (scikit-build-core) installs them into the wheel instead and leaves the
# source tree alone.
#
# DRAVIK_STUBS=OFF skips the stub; it is the default for sanitizer builds,
# whose module the build's Python cannot import without the sanitizer
# runtime preloaded.

if(DRAVIK_SANITIZE)
  option(DRAVIK_STUBS "Generate the type stub _cpp_cuda.pyi from the built module" OFF)
else()
  option(DRAVIK_STUBS "Generate the type stub _cpp_cuda.pyi from the built module" ON)
endif()

set(DRAVIK_PACKAGE_ROOT ${CMAKE_BINARY_DIR}/package)
set(DRAVIK_PACKAGE_DIR ${DRAVIK_PACKAGE_ROOT}/dravik/mirel/cones/cpp)
file(COPY ${CMAKE_SOURCE_DIR}/python/dravik DESTINATION ${DRAVIK_PACKAGE_ROOT}
     FILES_MATCHING PATTERN "*.py" PATTERN "__pycache__" EXCLUDE)
set_target_properties(_cpp_cuda PROPERTIES LIBRARY_OUTPUT_DIRECTORY ${DRAVIK_PACKAGE_DIR})

set(stub_files)
if(DRAVIK_STUBS)
  set(stub_files ${DRAVIK_PACKAGE_DIR}/_cpp_cuda.pyi)
  nanobind_add_stub(_cpp_cuda_stub
    MODULE dravik.mirel.cones.cpp._cpp_cuda
    OUTPUT ${stub_files}
    PYTHON_PATH ${DRAVIK_PACKAGE_ROOT}
    DEPENDS _cpp_cuda)
endif()

if(SKBUILD)
  install(TARGETS _cpp_cuda LIBRARY DESTINATION dravik/mirel/cones/cpp)
  if(DRAVIK_STUBS)
    install(FILES ${stub_files} DESTINATION dravik/mirel/cones/cpp)
  endif()
else()
  add_custom_target(_cpp_cuda_in_tree ALL
    COMMAND ${CMAKE_COMMAND} -E copy_if_different $<TARGET_FILE:_cpp_cuda> ${stub_files}
            ${DRAVIK_PYTHON_DIR}/dravik/mirel/cones/cpp
    VERBATIM)
  add_dependencies(_cpp_cuda_in_tree _cpp_cuda)
  if(DRAVIK_STUBS)
    add_dependencies(_cpp_cuda_in_tree _cpp_cuda_stub)
  endif()
endif()
