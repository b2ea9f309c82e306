# The CPU transform: of the other floors it knows the size functions alone. Its passes are built
# once for every instruction set that it chooses from at run time.
file(GLOB HOST_FFT_SOURCES CONFIGURE_DEPENDS host_fft/*.cpp)
list(REMOVE_ITEM HOST_FFT_SOURCES "${CMAKE_CURRENT_SOURCE_DIR}/host_fft/passes.cpp")
add_library(kevra_host_fft STATIC ${HOST_FFT_SOURCES})
target_link_libraries(kevra_host_fft PUBLIC kevra_codegen kevra_environment Threads::Threads)

function(kevra_host_fft_passes isa)
  add_library(kevra_host_fft_${isa} OBJECT host_fft/passes.cpp)
  target_include_directories(kevra_host_fft_${isa} PRIVATE ${CMAKE_CURRENT_SOURCE_DIR})
  target_compile_definitions(kevra_host_fft_${isa} PRIVATE KEVRA_ISA=${isa})
  # Products and sums may fuse. No vector crosses a call, so how one would be passed is no matter.
  target_compile_options(kevra_host_fft_${isa} PRIVATE ${ARGN} -ffp-contract=fast -Wno-psabi)
  if(KEVRA_SANITIZE)
    # The unrolled passes take the compiler many minutes with every access checked.
    target_compile_options(kevra_host_fft_${isa} PRIVATE -fno-sanitize=all)
  endif()
  target_sources(kevra_host_fft PRIVATE $<TARGET_OBJECTS:kevra_host_fft_${isa}>)
endfunction()

kevra_host_fft_passes(baseline)
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|AMD64|amd64)$")
  kevra_host_fft_passes(avx2 -mavx2 -mfma)
  kevra_host_fft_passes(avx512 -mavx2 -mfma -mavx512vl -mavx512dq)
endif()
