# How every target of this project is compiled.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)

if(NOT CMAKE_BUILD_TYPE)
  set(CMAKE_BUILD_TYPE RelWithDebInfo)
endif()

add_compile_options(
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wformat=2 -Wold-style-cast -Woverloaded-virtual
  -Wnon-virtual-dtor -Wcast-align -Wcast-qual -Wnull-dereference -Wundef)
if(ORYX_WARNINGS_AS_ERRORS)
  add_compile_options(-Werror)
endif()

if(ORYX_SANITIZE)
  add_compile_options("-fsanitize=${ORYX_SANITIZE}" -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options("-fsanitize=${ORYX_SANITIZE}")
endif()

if(ORYX_CLANG_TIDY)
  find_program(CLANG_TIDY clang-tidy REQUIRED)
  # The checks spend their time in the standard library's headers. In a unity build they read those once for many
  # sources, which are headers to them then.
  set(CMAKE_CXX_CLANG_TIDY "${CLANG_TIDY};--quiet;--header-filter=/(dal|util|platform|examples|tests)/.*[.](h|cpp)$"
    "--checks=-bugprone-suspicious-include" "--extra-arg=-Xclang" "--extra-arg=-analyzer-opt-analyze-headers"
    "--extra-arg=-Xclang" "--extra-arg=-analyzer-config" "--extra-arg=-Xclang" "--extra-arg=mode=shallow")
endif()
