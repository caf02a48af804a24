# Per-target compiler settings: every target of the project goes through
# korcommon_target_defaults() instead of global flags.
function(korcommon_target_defaults target)
  target_compile_features(${target} PRIVATE cxx_std_17)
  if(CMAKE_CXX_COMPILER_ID MATCHES "GNU|Clang")
    # C++ only: the C sources of a target are generated (the DDS sample type).
    target_compile_options(${target} PRIVATE
      $<$<COMPILE_LANGUAGE:CXX>:-Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wsign-conversion
        -Wnon-virtual-dtor -Woverloaded-virtual>)
    if(KORCOMMON_WARNINGS_AS_ERRORS)
      target_compile_options(${target} PRIVATE $<$<COMPILE_LANGUAGE:CXX>:-Werror>)
    endif()
  endif()
  if(KORCOMMON_SANITIZERS)
    target_compile_options(${target} PRIVATE
      -fsanitize=${KORCOMMON_SANITIZERS} -fno-omit-frame-pointer -fno-sanitize-recover=all)
    target_link_options(${target} PRIVATE -fsanitize=${KORCOMMON_SANITIZERS})
    # GCC's flow analysis misreads the instrumented std::function moves inside
    # libstdc++'s <regex> as uses of uninitialised memory; the sanitizers
    # themselves check the real thing at run time.
    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
      target_compile_options(${target} PRIVATE $<$<COMPILE_LANGUAGE:CXX>:-Wno-maybe-uninitialized>)
    endif()
  endif()
endfunction()
