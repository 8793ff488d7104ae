# Compiler settings shared by every target of the project.

# Warnings are errors on g++ and on mingw g++ alike.
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

if(WIN32)
  # The runtime goes inside Corvane.dll and the executables, so nothing but the
  # system DLLs has to travel with them.
  add_link_options(-static-libgcc -static-libstdc++ -Wl,-Bstatic,--whole-archive -lwinpthread
                   -Wl,--no-whole-archive,-Bdynamic)
endif()
