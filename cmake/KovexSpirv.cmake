# kovex_spirv_headers(TARGET DIR FILE:SYMBOL ...): compiles each GLSL file
# (relative to DIR) to SPIR-V with glslangValidator at build time, as a
# header FILE.h that defines `const uint32_t SYMBOL[]`, and adds the headers'
# directory and KOVEX_TEST_SHADERS=1 to TARGET. Without glslangValidator it
# does nothing, and what needs the shaders skips itself.
#
# kovex_hlsl_spirv_headers(TARGET DIR FILE:ENTRY:STAGE:SYMBOL ...): the same
# for HLSL (STAGE vert, frag or geom), with the entry point ENTRY and the
# register shifts of the engine's program compiler (t +16, s +32, u +48),
# into FILE.ENTRY.h, defining KOVEX_TEST_HLSL_SHADERS=1.

# One header of SPIR-V words: glslangValidator, with the extra arguments, on DIR/FILE.
function(kovex_spirv_header target dir file header symbol)
  set(out ${CMAKE_CURRENT_BINARY_DIR}/shaders)
  add_custom_command(OUTPUT ${out}/${header}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${out}
    COMMAND ${GLSLANG_VALIDATOR} -s ${ARGN} --target-env vulkan1.1 --vn ${symbol} -o ${out}/${header} ${dir}/${file}
    DEPENDS ${dir}/${file}
    COMMENT "SPIR-V of ${header}")
  target_sources(${target} PRIVATE ${out}/${header})
  target_include_directories(${target} PRIVATE ${out})
endfunction()

function(kovex_spirv_headers target dir)
  find_program(GLSLANG_VALIDATOR glslangValidator)
  if(NOT GLSLANG_VALIDATOR)
    return()
  endif()
  foreach(shader ${ARGN})
    string(REPLACE ":" ";" parts ${shader})
    list(GET parts 0 file)
    list(GET parts 1 symbol)
    kovex_spirv_header(${target} ${dir} ${file} ${file}.h ${symbol})
  endforeach()
  target_compile_definitions(${target} PRIVATE KOVEX_TEST_SHADERS=1)
endfunction()

function(kovex_hlsl_spirv_headers target dir)
  find_program(GLSLANG_VALIDATOR glslangValidator)
  if(NOT GLSLANG_VALIDATOR)
    return()
  endif()
  foreach(shader ${ARGN})
    string(REPLACE ":" ";" parts ${shader})
    list(GET parts 0 file)
    list(GET parts 1 entry)
    list(GET parts 2 stage)
    list(GET parts 3 symbol)
    kovex_spirv_header(${target} ${dir} ${file} ${file}.${entry}.h ${symbol}
      -D -e ${entry} -S ${stage} --stb 16 --ssb 32 --suavb 48)
  endforeach()
  target_compile_definitions(${target} PRIVATE KOVEX_TEST_HLSL_SHADERS=1)
endfunction()
