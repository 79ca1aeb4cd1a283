# How every target of this project is compiled.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
# `linux` is a macro in the gnu++ modes and a folder here.
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)

# Debugging information without NDEBUG: assertions stay on outside Release.
set(CMAKE_CXX_FLAGS_RELWITHDEBINFO "-O2 -g")

add_library(vrxutil_build INTERFACE)
target_compile_options(vrxutil_build INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion
  -Wnon-virtual-dtor -Wold-style-cast -Woverloaded-virtual
  $<$<BOOL:${VRXUTIL_WERROR}>:-Werror>
  "SHELL:-iquote ${PROJECT_SOURCE_DIR}")
if(VRXUTIL_SANITIZE)
  target_compile_options(vrxutil_build INTERFACE
    -fsanitize=${VRXUTIL_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer
    # False of std::regex, and with sanitizers alone (GCC bug 105562).
    $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
  target_link_options(vrxutil_build INTERFACE -fsanitize=${VRXUTIL_SANITIZE})
endif()

# A program or an internal library of this project.
function(vrxutil_target_settings target)
  target_link_libraries(${target} PRIVATE "$<BUILD_INTERFACE:vrxutil_build>")
  set_target_properties(${target} PROPERTIES
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON
    POSITION_INDEPENDENT_CODE ON)
endfunction()

# A shared library that the project installs: everything hidden that export.h
# does not export, and no undefined symbol left for the loader to find missing.
# Its headers need C++17.
function(vrxutil_library_settings target)
  vrxutil_target_settings(${target})
  target_compile_features(${target} PUBLIC cxx_std_17)
  set_target_properties(${target} PROPERTIES
    VERSION ${PROJECT_VERSION}
    SOVERSION ${PROJECT_VERSION_MAJOR})
  if(NOT APPLE AND NOT VRXUTIL_SANITIZE)
    set(hidden_symbols "${PROJECT_SOURCE_DIR}/cmake/hidden_symbols.map")
    # nodelete: threads that go on after dlclose() end with calls into the library.
    target_link_options(${target} PRIVATE
      -Wl,--no-undefined -Wl,-z,nodelete "-Wl,--version-script=${hidden_symbols}")
    set_target_properties(${target} PROPERTIES LINK_DEPENDS "${hidden_symbols}")
  endif()
endfunction()
