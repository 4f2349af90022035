# Options that every target of the project is compiled with.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_STANDARD 11)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_C_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_CXX_FLAGS_RELEASE "-O3 -DNDEBUG")

add_compile_options(-Wall -Wextra)
if(EMSCRIPTEN)
  # Debian's is older than the compilers that the code is kept free of warnings with, and has 32 bits.
  add_compile_options(-msimd128 -fexceptions -include "${PROJECT_SOURCE_DIR}/web/older_library.hpp")
  add_link_options(-fexceptions)
  if(TARN_THREADS STREQUAL "POOL")
    add_compile_options(-pthread)
    add_link_options(-pthread)
  endif()
elseif(TARN_WARNINGS_AS_ERRORS)
  add_compile_options(-Werror)
endif()
add_compile_options($<$<AND:$<COMPILE_LANGUAGE:CXX>,$<NOT:$<BOOL:${EMSCRIPTEN}>>>:-Wconversion> $<$<COMPILE_LANGUAGE:CXX>:-Wshadow>)

# A result is defined by its float operations in their order: never contract a multiply and an add into one rounding.
# errno and trap flags are not part of any result, and giving them up lets loops vectorise.
add_compile_options(-ffp-contract=off -fno-math-errno -fno-trapping-math)
# Clang says so where a loop that was marked as independent stays scalar; benchmarks are the judge of that.
add_compile_options($<$<CXX_COMPILER_ID:Clang>:-Wno-pass-failed>)
# A kernel is many small functions that must all become part of its loop, or that does not become vectors. GCC does so
# for all that a kernel calls ([[gnu::flatten]]); Clang does so for what it does not think too large.
add_compile_options("$<$<COMPILE_LANG_AND_ID:CXX,Clang>:SHELL:-mllvm -inline-threshold=1000>")

if(TARN_ARCH)
  add_compile_options(-march=${TARN_ARCH})
  # Full-width vectors pay on the stencils even where the tuning model prefers half.
  include(CheckCXXCompilerFlag)
  check_cxx_compiler_flag(-mprefer-vector-width=512 TARN_HAS_VECTOR_WIDTH)
  if(TARN_HAS_VECTOR_WIDTH)
    add_compile_options(-mprefer-vector-width=512)
  endif()
endif()

if(TARN_SANITIZE)
  add_compile_options(-fsanitize=${TARN_SANITIZE} -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${TARN_SANITIZE})
  if(TARN_SANITIZE MATCHES "undefined")
    add_compile_options(-fno-sanitize-recover=undefined)
  endif()
endif()
