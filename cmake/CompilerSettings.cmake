# What every target of the project is compiled with.
add_library(tamsel_settings INTERFACE)
target_compile_options(tamsel_settings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion -Wnon-virtual-dtor
  -Woverloaded-virtual -Wimplicit-fallthrough -Wcast-align
  # GCC 12 sees overlaps in std::string where there are none.
  $<$<CXX_COMPILER_ID:GNU>:-Wno-restrict>
  $<$<BOOL:${TAMSEL_WARNINGS_AS_ERRORS}>:-Werror>)

if(TAMSEL_SANITIZE)
  add_compile_options(-fsanitize=${TAMSEL_SANITIZE} -fno-omit-frame-pointer
    -fno-sanitize-recover=all)
  if(TAMSEL_SANITIZE MATCHES "undefined")
    # Libraries that are not built for it call what inline functions this program shares with them.
    add_compile_options(-fno-sanitize=vptr)
  endif()
  add_link_options(-fsanitize=${TAMSEL_SANITIZE})
endif()

# What Debian builds its packages with, so that a fault in memory is not a way in. Sanitizers find
# such faults better and get in its way.
if(NOT TAMSEL_SANITIZE)
  include(CheckPIESupported)
  check_pie_supported()
  set(CMAKE_POSITION_INDEPENDENT_CODE ON)
  add_compile_options(-fstack-protector-strong -fstack-clash-protection)
  add_link_options(-Wl,-z,relro -Wl,-z,now)
  # It needs optimisation, and warns without.
  add_compile_options($<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE>
    $<$<NOT:$<CONFIG:Debug>>:-D_FORTIFY_SOURCE=2>)
endif()

# A library named after its folder; headers are included as "folder/Header.h".
function(tamsel_library name)
  cmake_parse_arguments(arg "" "" "SOURCES;PUBLIC;PRIVATE" ${ARGN})
  add_library(${name} STATIC ${arg_SOURCES})
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR})
  target_link_libraries(${name} PUBLIC ${arg_PUBLIC} PRIVATE tamsel_settings ${arg_PRIVATE})
endfunction()
