# Empty platform libraries, made of the names that the headers declare: a cross build links against them where the
# camera's are not at hand. They stand in at link time alone; each function does nothing and returns 0.
#
# kestrel_platform_stub(LIBRARY): the target stub_LIBRARY, lib${LIBRARY}.so in the folder platform-stubs.
function(kestrel_platform_stub library)
  set(header ${PROJECT_SOURCE_DIR}/src/platform/${library}.h)
  set(source ${PROJECT_BINARY_DIR}/platform-stubs/${library}.c)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${header})
  # A declaration begins in the first column and has its parenthesis on the same line; a call of the ABI that returns
  # a zero register serves for every result that the headers have.
  file(STRINGS ${header} lines REGEX "^[a-z_][A-Za-z0-9_ *]*[ *][A-Za-z0-9_]+\\(")
  set(text "")
  foreach(line IN LISTS lines)
    string(REGEX REPLACE "^[^(]*[ *]([A-Za-z0-9_]+)\\(.*" "\\1" name "${line}")
    string(APPEND text "void* ${name}(void) { return 0; }\n")
  endforeach()
  file(CONFIGURE OUTPUT ${source} CONTENT "${text}")
  add_library(stub_${library} SHARED EXCLUDE_FROM_ALL ${source})
  # Some of the names are known to compilers with other results.
  target_compile_options(stub_${library} PRIVATE -fno-builtin)
  set_target_properties(stub_${library} PROPERTIES OUTPUT_NAME ${library}
    LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/platform-stubs)
  add_dependencies(platform-stubs stub_${library})
endfunction()

add_custom_target(platform-stubs)
foreach(library IN LISTS KESTREL_PLATFORM_LIBRARIES)
  kestrel_platform_stub(${library})
endforeach()
