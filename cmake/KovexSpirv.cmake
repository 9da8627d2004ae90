# kovex_spirv_headers(TARGET DIR FILE:SYMBOL ...): compiles each GLSL file
# (relative to DIR) to SPIR-V with glslangValidator at build time, as a
# header FILE.h that defines `const uint32_t SYMBOL[]`, and adds the headers'
# directory and KOVEX_TEST_SHADERS=1 to TARGET. Without glslangValidator it
# does nothing, and what needs the shaders skips itself.
function(kovex_spirv_headers target dir)
  find_program(GLSLANG_VALIDATOR glslangValidator)
  if(NOT GLSLANG_VALIDATOR)
    return()
  endif()
  set(out ${CMAKE_CURRENT_BINARY_DIR}/shaders)
  foreach(shader ${ARGN})
    string(REPLACE ":" ";" parts ${shader})
    list(GET parts 0 file)
    list(GET parts 1 symbol)
    add_custom_command(OUTPUT ${out}/${file}.h
      COMMAND ${CMAKE_COMMAND} -E make_directory ${out}
      COMMAND ${GLSLANG_VALIDATOR} -s --target-env vulkan1.1 --vn ${symbol} -o ${out}/${file}.h ${dir}/${file}
      DEPENDS ${dir}/${file}
      COMMENT "SPIR-V of ${file}")
    target_sources(${target} PRIVATE ${out}/${file}.h)
  endforeach()
  target_include_directories(${target} PRIVATE ${out})
  target_compile_definitions(${target} PRIVATE KOVEX_TEST_SHADERS=1)
endfunction()

# kovex_hlsl_spirv_headers(TARGET DIR FILE:ENTRY:STAGE:SYMBOL ...): as above
# for HLSL (STAGE vert, frag or geom), with the entry point ENTRY and the
# register shifts of the engine's program compiler (t +16, s +32, u +48),
# into FILE.ENTRY.h.
function(kovex_hlsl_spirv_headers target dir)
  find_program(GLSLANG_VALIDATOR glslangValidator)
  if(NOT GLSLANG_VALIDATOR)
    return()
  endif()
  set(out ${CMAKE_CURRENT_BINARY_DIR}/shaders)
  foreach(shader ${ARGN})
    string(REPLACE ":" ";" parts ${shader})
    list(GET parts 0 file)
    list(GET parts 1 entry)
    list(GET parts 2 stage)
    list(GET parts 3 symbol)
    add_custom_command(OUTPUT ${out}/${file}.${entry}.h
      COMMAND ${CMAKE_COMMAND} -E make_directory ${out}
      COMMAND ${GLSLANG_VALIDATOR} -s -D -e ${entry} -S ${stage} --target-env vulkan1.1
              --stb 16 --ssb 32 --suavb 48 --vn ${symbol} -o ${out}/${file}.${entry}.h ${dir}/${file}
      DEPENDS ${dir}/${file}
      COMMENT "SPIR-V of ${file} (${entry})")
    target_sources(${target} PRIVATE ${out}/${file}.${entry}.h)
  endforeach()
  target_include_directories(${target} PRIVATE ${out})
  target_compile_definitions(${target} PRIVATE KOVEX_TEST_HLSL_SHADERS=1)
endfunction()
