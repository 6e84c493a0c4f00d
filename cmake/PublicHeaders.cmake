# Makes the folder include/tavrik/ of the build tree: the headers as embedding programs see them,
# `#include <tavrik/log/Logger.h>`. They include each other the same way, so neither disturbs a program
# with headers of the same names. Installed from there, too.
set(tavrik_include_dir ${PROJECT_BINARY_DIR}/include)

configure_file(${CMAKE_CURRENT_LIST_DIR}/version.h.in ${tavrik_include_dir}/tavrik/version.h @ONLY)

foreach(folder ${tavrik_folders})
  file(GLOB headers RELATIVE ${PROJECT_SOURCE_DIR} CONFIGURE_DEPENDS ${folder}/*.h)
  foreach(header ${headers})
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${header})
    file(READ ${header} text)
    string(REGEX REPLACE "#include \"([^\"]+)\"" "#include <tavrik/\\1>" text "${text}")
    file(CONFIGURE OUTPUT ${tavrik_include_dir}/tavrik/${header} CONTENT "${text}" @ONLY)
  endforeach()
  # A header that is no longer public would still be installed from here.
  file(GLOB made RELATIVE ${tavrik_include_dir}/tavrik ${tavrik_include_dir}/tavrik/${folder}/*.h)
  foreach(header ${made})
    if(NOT header IN_LIST headers)
      file(REMOVE ${tavrik_include_dir}/tavrik/${header})
    endif()
  endforeach()
endforeach()

target_include_directories(tavrik INTERFACE
  $<BUILD_INTERFACE:${tavrik_include_dir}> $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
