# Compiler settings shared by every target of the project.

# Warnings are errors on g++ and on mingw g++ alike. Every target of the project links
# this; third-party code built in the tree (GoogleTest in the cross build) does not.
add_library(corvane_warnings INTERFACE)
target_compile_options(corvane_warnings INTERFACE -Wall -Wextra -Werror)

if(CORVANE_SANITIZE)
  string(REPLACE "," ";" _sanitizers "${CORVANE_SANITIZE}")
  foreach(_s IN LISTS _sanitizers)
    add_compile_options(-fsanitize=${_s})
    add_link_options(-fsanitize=${_s})
  endforeach()
  add_compile_options(-fno-omit-frame-pointer)
  if("undefined" IN_LIST _sanitizers)
    add_compile_options(-fno-sanitize-recover=undefined)
  endif()
endif()

if(MINGW)
  # The C++ runtime, libgcc and winpthread go inside Corvane.dll and inside every
  # executable, so nothing but system DLLs has to travel with them. -static only makes
  # the linker prefer archives: the system import libraries (ws2_32 ...) stay imports.
  add_link_options(-static)
  # Each binary then carries its own copy of the runtime. A DLL must not export it: an
  # executable linking the import library would find _Unwind_Resume and friends both
  # there and in its own libgcc_eh.a and fail with "multiple definition".
  add_link_options($<$<STREQUAL:$<TARGET_PROPERTY:TYPE>,SHARED_LIBRARY>:LINKER:--exclude-libs,ALL>)
endif()

# Copies the project DLLs an executable links (Corvane.dll) beside it, so it starts from
# the build tree under Wine or Windows. Nothing to do on other platforms.
function(corvane_runtime_dlls_beside target)
  if(WIN32)
    add_custom_command(TARGET ${target} POST_BUILD
      COMMAND ${CMAKE_COMMAND} -E copy_if_different $<TARGET_RUNTIME_DLLS:${target}>
              $<TARGET_FILE_DIR:${target}>
      COMMAND_EXPAND_LISTS)
  endif()
endfunction()

# Names of the folders directly below `dir` that hold .cpp files, sorted. A folder that
# gains its first source is picked up at the next build (the glob is re-checked).
function(corvane_source_folders out_var dir)
  file(GLOB _sources CONFIGURE_DEPENDS ${dir}/*/*.cpp)
  set(_names "")
  foreach(_source IN LISTS _sources)
    get_filename_component(_folder ${_source} DIRECTORY)
    get_filename_component(_name ${_folder} NAME)
    list(APPEND _names ${_name})
  endforeach()
  list(REMOVE_DUPLICATES _names)
  list(SORT _names)
  set(${out_var} ${_names} PARENT_SCOPE)
endfunction()
