# What the device stand-ins share: sources, and how their libraries are made.
set(KEVRA_PLATFORM_COMMON ${CMAKE_CURRENT_LIST_DIR})
set(KEVRA_PLATFORM_SOURCES abi device_text faults image variables)
list(TRANSFORM KEVRA_PLATFORM_SOURCES PREPEND ${KEVRA_PLATFORM_COMMON}/)
list(TRANSFORM KEVRA_PLATFORM_SOURCES APPEND .cpp)

# kevra_device_common(name HEADERS headers... VERSIONED files... SOURCES sources...): a library of the
# shared sources and the device's own, and of the text in front of every kernel: the headers, in the
# order in which they build on each other. The versioned files count into that text's version.
function(kevra_device_common name)
  cmake_parse_arguments(ARG "" "" "HEADERS;VERSIONED;SOURCES" ${ARGN})
  set(text ${CMAKE_CURRENT_BINARY_DIR}/device_text.cpp)
  set(embed ${KEVRA_PLATFORM_COMMON}/embed.cmake)
  add_custom_command(OUTPUT ${text}
    COMMAND ${CMAKE_COMMAND} "-DOUTPUT=${text}" "-DHEADERS=${ARG_HEADERS}" "-DSOURCES=${ARG_VERSIONED}"
      -P ${embed}
    DEPENDS ${embed} ${ARG_HEADERS} ${ARG_VERSIONED}
    COMMENT "Embedding the device headers of ${name}" VERBATIM)
  add_library(${name} STATIC ${KEVRA_PLATFORM_SOURCES} ${ARG_SOURCES} ${text})
  target_include_directories(${name} PUBLIC ${CMAKE_CURRENT_SOURCE_DIR} ${PROJECT_SOURCE_DIR})
endfunction()

# kevra_device_library(name file common sources...): lib<file>.so in the package's folder of this
# device. Only the interface's C names are visible; threads that outlive a dlclose find their code.
function(kevra_device_library name file common)
  get_filename_component(folder ${CMAKE_CURRENT_SOURCE_DIR} NAME)
  set(exports ${KEVRA_PLATFORM_COMMON}/exports.map)
  add_library(${name} SHARED ${ARGN})
  target_link_libraries(${name} PRIVATE ${common} Threads::Threads ${CMAKE_DL_LIBS})
  target_link_options(${name} PRIVATE "-Wl,--version-script=${exports}" -Wl,-z,nodelete)
  set_target_properties(${name} PROPERTIES OUTPUT_NAME ${file} LINK_DEPENDS ${exports}
    LIBRARY_OUTPUT_DIRECTORY "${KEVRA_PACKAGE_DIR}/${folder}")
  install(TARGETS ${name} LIBRARY DESTINATION kevra/${folder})
endfunction()
