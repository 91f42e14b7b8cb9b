# How every target of this project is compiled.

include(CheckCXXCompilerFlag)
include(CheckPIESupported)

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
check_pie_supported(LANGUAGES CXX)
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

# What is shipped is hardened: it answers to the network.
set(released "$<CONFIG:Release,RelWithDebInfo,MinSizeRel>")
if(NOT ORYX_SANITIZE)
  foreach(flag -fstack-protector-strong -fstack-clash-protection -fcf-protection)
    string(MAKE_C_IDENTIFIER "ORYX_HAS${flag}" supported)
    check_cxx_compiler_flag("${flag}" ${supported})
    if(${supported})
      add_compile_options("$<${released}:${flag}>")
    endif()
  endforeach()
  # Some compilers define it themselves.
  add_compile_options("$<${released}:-U_FORTIFY_SOURCE;-D_FORTIFY_SOURCE=3>")
  add_link_options("$<${released}:LINKER:-z,relro,-z,now,-z,noexecstack>")
endif()

if(ORYX_CLANG_TIDY)
  find_program(CLANG_TIDY clang-tidy REQUIRED)
  # The checks spend their time in the standard library's headers. In a unity build they read those once for many
  # sources, which are headers to them then.
  set(left_out "-bugprone-suspicious-include")
  if(ORYX_CLANG_TIDY STREQUAL "SHIPPED")
    string(APPEND left_out ",-clang-analyzer-*")
  endif()
  # The compiler's options are those of g++ too, some of which clang does not use.
  set(CMAKE_CXX_CLANG_TIDY "${CLANG_TIDY};--quiet;--header-filter=/(dal|util|platform|examples|servers|tests)/.*[.](h|cpp)$"
    "--checks=${left_out}" "--extra-arg=-Wno-unused-command-line-argument"
    "--extra-arg=-Xclang" "--extra-arg=-analyzer-opt-analyze-headers"
    "--extra-arg=-Xclang" "--extra-arg=-analyzer-config" "--extra-arg=-Xclang" "--extra-arg=mode=shallow")
endif()
