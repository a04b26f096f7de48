# Flags shared by every target of the project, carried by one interface target
# so that a library, a test and a benchmark are always built the same way.
add_library(kx_settings INTERFACE)
add_library(kx::settings ALIAS kx_settings)
target_compile_features(kx_settings INTERFACE cxx_std_17)
# Every source of the project must name itself in log lines through
# kx_log_file_names(); only outside users of the library get a default.
target_compile_definitions(kx_settings INTERFACE KX_LOG_FILE_REQUIRED)

if(CMAKE_CXX_COMPILER_ID MATCHES "GNU|Clang")
  target_compile_options(kx_settings INTERFACE -Wall -Wextra)
  if(KX_WERROR)
    target_compile_options(kx_settings INTERFACE -Werror)
  endif()
  # A section per function and object, so that a program linked with
  # --gc-sections (kx_lean_program) drops what it never reaches.
  if(NOT APPLE)
    target_compile_options(kx_settings INTERFACE -ffunction-sections -fdata-sections)
  endif()
endif()

if(KX_SANITIZE)
  string(REPLACE " " "" _kx_san "${KX_SANITIZE}")
  set(_kx_san_flags -fsanitize=${_kx_san} -fno-omit-frame-pointer)
  if(_kx_san MATCHES "undefined")
    list(APPEND _kx_san_flags -fno-sanitize-recover=undefined)
  endif()
  target_compile_options(kx_settings INTERFACE ${_kx_san_flags})
  target_link_options(kx_settings INTERFACE ${_kx_san_flags})
  # Code that would skip the usual exit keeps it, for the sanitizers' checks.
  target_compile_definitions(kx_settings INTERFACE KX_SANITIZED)
endif()
