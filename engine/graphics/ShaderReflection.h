#pragma once

// What one compiled stage declares, read from its final SPIR-V module: the
// constant buffers with every member's offset and size as the module lays
// them out, the textures, samplers and read-write buffers with their
// descriptor set and binding, and the vertex inputs. Programs are built from
// these records, so the CPU side writes constants exactly where the module
// reads them.
//
// Names are as the shader text spells them, prefixes included
// ("kovex_t_"/"kovex_s_"): the program strips them when it merges stages.
//
// Threads: plain data.

#include <string>
#include <vector>

#include "kernel/Types.h"

namespace KovexEngine {

struct ShaderReflection
{
    struct Member
    {
        std::string Name;
        uint32 Offset = 0;      // bytes from the start of the buffer
        uint32 Size = 0;        // declared size in bytes (whole array)
        uint32 ArrayCount = 0;  // 0 for a member that is no array
        uint32 ArrayStride = 0; // bytes between elements
        uint32 MatrixStride = 0;
        uint32 Columns = 1; // vector width, or matrix columns; 0 for a struct
        uint32 Rows = 1;    // 1 for scalars and vectors; 0 for a struct
        bool RowMajor = false;
    };
    struct ConstantBuffer
    {
        std::string Name; // "$Global" for the implicit one
        uint32 Set = 0;
        uint32 Binding = 0;
        uint32 Size = 0; // declared size of the block in bytes
        std::vector<Member> Members;
    };
    struct Resource
    {
        std::string Name;
        uint32 Set = 0;
        uint32 Binding = 0;
        // Textures: 1, 2, 3 for the dimension, 4 for a cube; arrays add 8.
        // Read-write resources: 0 for a buffer, else as for textures.
        uint32 Dimension = 0;
        uint32 ArraySize = 1; // descriptor array length
    };
    struct Input
    {
        // The compiler names a final module's vertex inputs after their
        // semantics, so byte code from a cache reflects them too.
        std::string Name;
        std::string Semantic; // upper case with its index, "TEXCOORD0"
        uint32 Location = 0;
        uint32 Components = 0;
    };

    std::vector<ConstantBuffer> ConstantBuffers;
    std::vector<Resource> Textures;
    std::vector<Resource> Samplers;
    std::vector<Resource> RWBuffers; // storage buffers and storage images
    std::vector<Input> Inputs;       // vertex stage only
    uint32 WorkGroupSize[3] = {0, 0, 0}; // compute stage only
};

} // namespace KovexEngine
