# The library is built as one static library per layer, each depending only on the layers
# below it (foundation <- platform <- support <- receipt, storekit <- store <- catalog <- manager), and
# the umbrella target zbiap (alias zbiap::zbiap) that links them all. The layers keep the
# dependency direction honest: a layer that reaches upwards does not link.
function(zbiap_layer name)
  cmake_parse_arguments(ARG "" "" "DEPS;PRIVATE_DEPS" ${ARGN})
  file(GLOB _sources CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/src/${name}/*.cc")
  if(_sources)
    add_library(zbiap_${name} STATIC ${_sources})
    target_include_directories(zbiap_${name}
      PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include> $<INSTALL_INTERFACE:include>
      PRIVATE ${PROJECT_SOURCE_DIR}/src)
    target_link_libraries(zbiap_${name} PUBLIC ${ARG_DEPS}
                          PRIVATE ${ARG_PRIVATE_DEPS} $<BUILD_INTERFACE:zbiap_warnings>)
    # Hidden unless marked ZBIAP_EXPORT: the shared library is linked from these same objects.
    set_target_properties(zbiap_${name} PROPERTIES CXX_VISIBILITY_PRESET hidden
                          VISIBILITY_INLINES_HIDDEN ON)
  else()
    add_library(zbiap_${name} INTERFACE)
    target_include_directories(zbiap_${name}
      INTERFACE $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include> $<INSTALL_INTERFACE:include>)
    target_link_libraries(zbiap_${name} INTERFACE ${ARG_DEPS})
  endif()
endfunction()

# Adds to `target` a generated source that defines `std::string_view zbiap::<function>()`
# returning the bytes of `input` (a path in the source tree), regenerated when the file changes.
function(zbiap_embed_file target function input)
  set(_output "${CMAKE_CURRENT_BINARY_DIR}/embedded_${function}.cc")
  add_custom_command(
    OUTPUT "${_output}"
    COMMAND ${CMAKE_COMMAND} -DINPUT=${input} -DOUTPUT=${_output} -DFUNCTION=${function}
            -P "${PROJECT_SOURCE_DIR}/cmake/embed_file.cmake"
    DEPENDS "${input}" "${PROJECT_SOURCE_DIR}/cmake/embed_file.cmake"
    COMMENT "Embedding ${input}"
    VERBATIM)
  target_sources(${target} PRIVATE "${_output}")
endfunction()
