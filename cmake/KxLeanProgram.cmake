# The update program runs on every agent, on a timer, and most runs have
# nothing to do: what it maps while it runs is most of its cost. The shared
# C++ runtime was the largest part of it (bench/rss_vs_curl.sh): libstdc++'s
# symbol tables and relocations are read whole when it loads, its locale and
# stream set-up touches code all over it, and it brings libm and libgcc_s.
# Linked in, only the members the program uses come along.
#
# KX_STATIC_CXX_RUNTIME: the update programs carry libstdc++, libgcc and
# Boost inside them. Boost then comes as static libraries for every target
# (Debian's Boost -dev packages hold them): a shared Boost would load the
# shared libstdc++ after all. Not for macOS, whose C++ runtime is part of the
# system, nor with sanitizers, whose runtimes expect the shared one.
option(KX_STATIC_CXX_RUNTIME "Link the update programs with the C++ runtime and Boost inside them (Linux; needs Boost's static libraries)" ON)
set(KX_CXX_RUNTIME_INSIDE OFF)
if(KX_STATIC_CXX_RUNTIME AND NOT APPLE AND NOT KX_SANITIZE AND CMAKE_CXX_COMPILER_ID MATCHES "GNU|Clang")
  set(KX_CXX_RUNTIME_INSIDE ON)
  set(Boost_USE_STATIC_LIBS ON)
endif()

# kx_lean_program(<target>): links a program that ships so that it carries
# only the code it reaches (--gc-sections: the static archives, the C++
# runtime's included, are built a section per function) and names only the
# shared libraries it calls (--as-needed: the compiler driver adds libm to
# every C++ link), with the C++ runtime inside when KX_CXX_RUNTIME_INSIDE.
# The kernel maps a program's code in windows of several pages around each
# page touched, so code that never runs still costs memory when it sits
# between code that does.
function(kx_lean_program target)
  if(APPLE OR NOT CMAKE_CXX_COMPILER_ID MATCHES "GNU|Clang")
    return()
  endif()
  target_link_options(${target} PRIVATE LINKER:--gc-sections LINKER:--as-needed)
  if(KX_CXX_RUNTIME_INSIDE)
    target_link_options(${target} PRIVATE -static-libstdc++ -static-libgcc)
  endif()
endfunction()
