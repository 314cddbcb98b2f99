# Uninstrumented twins of the sanitized targets, for the valgrind runs. (The
# simulated driver's preload library carries no sanitizer of its own, so it
# serves both runs as it is.)
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

function(tarnwick_add_plain_variants)
  add_library(tarnwick_core_plain STATIC ${TARNWICK_SOURCES})
  target_include_directories(tarnwick_core_plain PUBLIC ${CMAKE_SOURCE_DIR}/src)
  tarnwick_unsanitize(tarnwick_core_plain)

  add_executable(tarnwick_plain ${CMAKE_SOURCE_DIR}/src/context/main.cpp)
  target_link_libraries(tarnwick_plain PRIVATE tarnwick_core_plain)
  tarnwick_unsanitize(tarnwick_plain)
endfunction()
