# Uninstrumented twins of the sanitized targets, for the valgrind runs.
#
# The sanitizer flags of TARNWICK_SANITIZE are directory-wide, so every
# target picks them up when it is created. A twin gets the same sources and
# settings with every sanitizer option filtered out of its compile and link
# options.

set(TARNWICK_SANITIZER_OPTION_REGEX
    "^-f(no-)?sanitize|^-static-libasan$|^-static-libubsan$|^-shared-libasan$")

# Removes the sanitizer options from a target's own compile and link options.
function(tarnwick_unsanitize target)
  foreach(property COMPILE_OPTIONS LINK_OPTIONS)
    get_target_property(options ${target} ${property})
    if(options)
      list(FILTER options EXCLUDE REGEX "${TARNWICK_SANITIZER_OPTION_REGEX}")
      set_property(TARGET ${target} PROPERTY ${property} ${options})
    endif()
  endforeach()
endfunction()

# Copies the settings of a library target that has no plain twin yet (used
# for the simulated driver's preload library, whose CMakeLists.txt is its
# own business). Returns quietly with a status message when the library
# links other project libraries, whose sanitized objects would come along.
function(tarnwick_clone_unsanitized original twin)
  get_target_property(type ${original} TYPE)
  get_target_property(sources ${original} SOURCES)
  get_target_property(source_dir ${original} SOURCE_DIR)
  get_target_property(libraries ${original} LINK_LIBRARIES)
  if(NOT libraries)
    set(libraries "")
  endif()
  foreach(library ${libraries})
    if(TARGET ${library})
      get_target_property(imported ${library} IMPORTED)
      get_target_property(library_type ${library} TYPE)
      if(NOT imported AND NOT library_type STREQUAL "INTERFACE_LIBRARY")
        message(STATUS "${twin} not made: ${original} links ${library}")
        return()
      endif()
    endif()
  endforeach()
  set(absolute_sources "")
  foreach(source ${sources})
    if(IS_ABSOLUTE "${source}" OR source MATCHES "^\\$<")
      list(APPEND absolute_sources "${source}")
    else()
      list(APPEND absolute_sources "${source_dir}/${source}")
    endif()
  endforeach()
  if(type STREQUAL "SHARED_LIBRARY")
    add_library(${twin} SHARED ${absolute_sources})
  elseif(type STREQUAL "MODULE_LIBRARY")
    add_library(${twin} MODULE ${absolute_sources})
  else()
    message(STATUS "${twin} not made: ${original} is a ${type}")
    return()
  endif()
  foreach(property INCLUDE_DIRECTORIES COMPILE_DEFINITIONS COMPILE_OPTIONS COMPILE_FEATURES
                   LINK_OPTIONS POSITION_INDEPENDENT_CODE C_STANDARD CXX_STANDARD
                   CXX_EXTENSIONS LINKER_LANGUAGE PREFIX SUFFIX)
    get_target_property(value ${original} ${property})
    if(NOT value STREQUAL "value-NOTFOUND")
      set_property(TARGET ${twin} PROPERTY ${property} ${value})
    endif()
  endforeach()
  target_link_libraries(${twin} PRIVATE ${libraries})
  tarnwick_unsanitize(${twin})
endfunction()

function(tarnwick_add_plain_variants)
  add_library(tarnwick_core_plain STATIC ${TARNWICK_SOURCES})
  target_include_directories(tarnwick_core_plain PUBLIC ${CMAKE_SOURCE_DIR}/src)
  tarnwick_unsanitize(tarnwick_core_plain)

  add_executable(tarnwick_plain ${CMAKE_SOURCE_DIR}/src/context/main.cpp)
  target_link_libraries(tarnwick_plain PRIVATE tarnwick_core_plain)
  tarnwick_unsanitize(tarnwick_plain)

  if(TARGET vpathsim_preload AND NOT TARGET vpathsim_preload_plain)
    tarnwick_clone_unsanitized(vpathsim_preload vpathsim_preload_plain)
  endif()
endfunction()
