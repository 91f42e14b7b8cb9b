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
  # The static analyzer alone would take two thirds of the time; its shallow mode takes a tenth.
  set(CMAKE_CXX_CLANG_TIDY "${CLANG_TIDY};--quiet")
  foreach(argument -Xclang -analyzer-config -Xclang mode=shallow)
    list(APPEND CMAKE_CXX_CLANG_TIDY "--extra-arg=${argument}")
  endforeach()
endif()
