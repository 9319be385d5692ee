# How our own code is compiled: own_code(target) after add_library or add_executable.
function(own_code target)
  target_compile_features(${target} PRIVATE cxx_std_20)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wconversion -Werror)
  if(WIN32)
    target_compile_definitions(${target} PRIVATE _WIN32_WINNT=0x0A00 WIN32_LEAN_AND_MEAN NOMINMAX)
  endif()
endfunction()

# A program: our own code, with the compiler's runtime inside, so that it runs where MinGW is not.
function(own_program target)
  own_code(${target})
  if(WIN32)
    target_link_options(${target} PRIVATE -static)
  endif()
endfunction()
