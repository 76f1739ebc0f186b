# The tool's report code built once more with every fixed path moved under a scratch directory,
# for tests that run whole reports over a device tree they write themselves (the report fuzz
# targets and their corpus replay). The shipped binary does not link it and stays as it is.
#
# Each wrapper includes the real paths.h first, so the source's own include of it is skipped
# (#pragma once), then redefines every path under ROOT, then includes the real source; changes
# to the sources rebuild the wrappers as any include would.
#   quarry_tree_tool(NAME)   a static library NAME; its users get the root as QUARRY_TREE_ROOT
# The root is in shared memory, since a fuzz target writes and removes a tree per input, and
# named after the build directory and NAME, so builds and targets can run side by side.
function(quarry_tree_tool name)
  string(MD5 tag "${CMAKE_CURRENT_BINARY_DIR}/${name}")
  string(SUBSTRING "${tag}" 0 12 tag)
  set(root /dev/shm/quarry-tree-${name}-${tag})
  set(dir ${CMAKE_CURRENT_BINARY_DIR}/${name})
  set(paths ${PROJECT_SOURCE_DIR}/tool/paths.h)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${paths})
  file(STRINGS ${paths} defines REGEX "^#define [A-Z0-9_]+ \"")
  set(text "// Generated from tool/paths.h: every path under QUARRY_TREE_ROOT.\n")
  foreach(line IN LISTS defines)
    string(REGEX REPLACE "^#define ([A-Z0-9_]+) (\".*)$"
           "#undef \\1\n#define \\1 QUARRY_TREE_ROOT \\2\n" out "${line}")
    string(APPEND text "${out}")
  endforeach()
  file(CONFIGURE OUTPUT ${dir}/tree_paths.h CONTENT "${text}")

  # The same sources as the tool's own library (all but main() and the version string).
  get_target_property(sources quarry_tool SOURCES)
  set(wrappers "")
  foreach(src IN LISTS sources)
    get_filename_component(base ${src} NAME)
    file(CONFIGURE OUTPUT ${dir}/${base}
         CONTENT "#include \"${paths}\"\n#include \"tree_paths.h\"\n#include \"${src}\"\n")
    list(APPEND wrappers ${dir}/${base})
  endforeach()

  find_package(ZLIB REQUIRED)
  add_library(${name} STATIC ${wrappers})
  target_include_directories(${name} PUBLIC ${PROJECT_SOURCE_DIR}/tool ${dir})
  target_compile_definitions(${name} PUBLIC QUARRY_TREE_ROOT="${root}")
  # A written tree does not move while a report reads it, so a walk or a read of the sysfs
  # statistics that fails will fail again: the pauses between the reads, meant for a device
  # freeing a buffer, would only cost each damaged input half a second, ten reads do what
  # three do, and one strict pass of a walk what three do (the forgiving pass still follows).
  target_compile_definitions(${name} PRIVATE SYSFS_RETRY_FIRST_PAUSE_US=0 SYSFS_READ_ATTEMPTS=3
                                             WALK_STRICT_PASSES=1)
  target_link_libraries(${name} PUBLIC dmabufinfo meminfo procinfo quarry_base ZLIB::ZLIB)
endfunction()
