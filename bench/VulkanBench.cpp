// The Vulkan backend on whatever device the machine has (lavapipe in CI):
// a 640x360 clear read back each frame, and 64 MiB uploads, each beside a
// memcpy of the same bytes. Skipped where there is no Vulkan device.

#include <benchmark/benchmark.h>

#include <stdlib.h>
#include <string.h>

#include <vector>

#include "graphics/TextureFactory.h"
#include "graphics/VertexBuffer.h"
#include "graphics/vulkan/VulkanRenderer.h"
#include "images/Image.h"
#include "kernel/EngineGlobals.h"
#include "kernel/Log.h"
#include "lifecycle/Engine.h"

#ifdef KOVEX_TEST_SHADERS
#include "triangle.frag.h"
#include "triangle.vert.h"
#endif
#ifdef KOVEX_TEST_HLSL_SHADERS
#include "graphics/BaseProgram.h"
#include "graphics/RenderStates.h"
#include "graphics/ShaderReflection.h"
#include "graphics/VertexDecl.h"
#include "graphics/vulkan/VulkanProgram.h"
#include "graphics/vulkan/VulkanResources.h"
#include "textured.hlsl.PS.h"
#include "textured.hlsl.VS.h"
#endif

using namespace KovexEngine;

namespace {

struct VulkanEngine
{
    bool ok = false;
    VulkanEngine()
    {
        if (!VulkanDevice::Probe())
            return;
        g_IsNullRenderer = false;
        Kovex_Main_Initialize();
        Log::Clear();
        GraphicsParameters parameters;
        parameters.Width = 640;
        parameters.Height = 360;
        if (Renderer::SetupPlatform(RendererPlatform::Vulkan))
            Kovex_InitRenderer(parameters);
        ok = VulkanRenderer::Get() && VulkanRenderer::Get()->GetDevice().IsOpen();
    }
    // Open, and on a device that draws (dynamic rendering).
    bool CanDraw() const { return ok && VulkanRenderer::Get()->GetDevice().GetBeginRendering(); }
    ~VulkanEngine()
    {
        Kovex_Main_Terminate();
        Kovex_Renderer_Terminate();
        Kovex_System_Terminate();
    }
};

constexpr size_t kFrameBytes = 640 * 360 * 4;
constexpr size_t kBigBytes = size_t(64) << 20;

void BM_Vulkan_ClearAndReadBack640x360(benchmark::State& state)
{
    VulkanEngine engine;
    if (!engine.ok)
    {
        state.SkipWithError("no Vulkan device");
        return;
    }
    VulkanRenderer& r = *VulkanRenderer::Get();
    Ptr<Texture> target = r.GetRenderTarget(0);
    std::vector<uint8> pixels;
    float shade = 0;
    for (auto _ : state)
    {
        r.BeginFrame();
        r.Clear(GraphicsClearMode::Target, Vector4(shade, 0.5f, 0.25f, 1.0f), 1.0f, 0);
        r.EndFrame();
        r.Present();
        if (!r.ReadTexture(target.Get(), 0, 0, pixels) || pixels.size() != kFrameBytes)
            state.SkipWithError("read-back failed");
        shade = shade > 0.9f ? 0.0f : shade + 0.1f;
        benchmark::DoNotOptimize(pixels.data());
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(kFrameBytes));
}
BENCHMARK(BM_Vulkan_ClearAndReadBack640x360)->Unit(benchmark::kMillisecond)->UseRealTime();

#ifdef KOVEX_TEST_SHADERS
// The same frame with one triangle drawn after the clear, its pipeline
// found in the cache each frame.
void BM_Vulkan_ClearDrawAndReadBack640x360(benchmark::State& state)
{
    VulkanEngine engine;
    if (!engine.CanDraw())
    {
        state.SkipWithError("no Vulkan device that draws");
        return;
    }
    VulkanRenderer& r = *VulkanRenderer::Get();
    VkShaderModule vs = r.CreateShaderModule(kTriangleVS, sizeof(kTriangleVS));
    VkShaderModule ps = r.CreateShaderModule(kTrianglePS, sizeof(kTrianglePS));
    VertexElement elements[2];
    elements[0].Assign(GraphicsSemantic::Position, 0, GraphicsLayoutFormat::Float3, 0, 0, GraphicsInputClass::PerVertex,
                       0);
    elements[1].Assign(GraphicsSemantic::Color, 0, GraphicsLayoutFormat::Float4, 0, 12, GraphicsInputClass::PerVertex, 0);
    const float triangle[3][7] = {{-0.5f, -0.5f, 0.5f, 1, 0.5f, 0, 1}, {0, 0.75f, 0.5f, 0, 1, 0.5f, 1},
                                  {0.75f, -0.25f, 0.5f, 0.5f, 0, 1, 1}};
    Ptr<VertexBuffer::Stream> stream = VertexBuffer::Stream::Create(elements, 2, 3, true);
    memcpy(stream->GetPointer(0), triangle, sizeof(triangle));
    Ptr<VertexBuffer> buffer =
        VertexBufferFactory::Get()->Create(stream, 0, GraphicsResourceUsage::Immutable, nullptr);
    Ptr<Texture> target = r.GetRenderTarget(0);
    std::vector<uint8> pixels;
    for (auto _ : state)
    {
        r.BeginFrame();
        r.Clear(GraphicsClearMode::TargetDepthStencil, Vector4(0.1f, 0.2f, 0.3f, 1.0f), 1.0f, 0);
        if (!r.DrawVertices(vs, ps, buffer.Get(), 3, GraphicsTopology::TriangleList))
            state.SkipWithError("draw failed");
        r.EndFrame();
        r.Present();
        if (!r.ReadTexture(target.Get(), 0, 0, pixels) || pixels.size() != kFrameBytes)
            state.SkipWithError("read-back failed");
        benchmark::DoNotOptimize(pixels.data());
    }
    r.DestroyShaderModule(vs);
    r.DestroyShaderModule(ps);
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(kFrameBytes));
}
BENCHMARK(BM_Vulkan_ClearDrawAndReadBack640x360)->Unit(benchmark::kMillisecond)->UseRealTime();
#endif

#ifdef KOVEX_TEST_HLSL_SHADERS
// --- Draw submission: 10,000 draws, each with its own constant and texture ----------------

constexpr int kDraws = 10000;

// textured.hlsl as the engine's compiler reflects it: Tint at b0, the
// texture at t0 (16) and its sampler at s0 (32), both read by the pixel stage.
struct DrawScene
{
    Ptr<BaseProgram> program;
    Ptr<Texture> target, textures[2];
    Ptr<VertexBuffer> triangle;
    Ptr<SamplerState> sampler;
    bool ok = false;

    DrawScene()
    {
        ShaderReflection vs, ps;
        ShaderReflection::Input position, uv;
        position.Name = "position", position.Semantic = "POSITION0", position.Components = 3;
        uv.Name = "uv", uv.Semantic = "TEXCOORD0", uv.Location = 1, uv.Components = 2;
        vs.Inputs = {position, uv};
        ShaderReflection::ConstantBuffer block;
        block.Name = "Material";
        block.Size = 16;
        ShaderReflection::Member tint;
        tint.Name = "Tint", tint.Size = 16, tint.Columns = 4;
        block.Members = {tint};
        ps.ConstantBuffers = {block};
        ShaderReflection::Resource albedo, albedoSampler;
        albedo.Name = "kovex_t_Albedo", albedo.Binding = 16, albedo.Dimension = 2;
        albedoSampler.Name = "kovex_s_Albedo", albedoSampler.Binding = 32;
        ps.Textures = {albedo};
        ps.Samplers = {albedoSampler};
        program = Ptr<BaseProgram>(new BaseProgram());
        const std::pair<const uint32*, size_t> code[2] = {{kTexturedVS, sizeof(kTexturedVS)},
                                                          {kTexturedPS, sizeof(kTexturedPS)}};
        for (int stage = 0; stage < 2; ++stage)
        {
            void* words = malloc(code[stage].second);
            memcpy(words, code[stage].first, code[stage].second);
            const ShaderType type = stage ? ShaderType::Pixel : ShaderType::Vertex;
            Ptr<Shader> shader = ShaderFactory::Get()->CreateShader(type, words, uint32(code[stage].second));
            if (!shader)
                return;
            shader->GetReflection() = stage ? ps : vs;
            program->SetShader(type, shader);
            if (!program->AddReflection(type, stage ? ps : vs))
                return;
        }
        if (!program->CreateConstantBuffers())
            return;
        ShaderFactory::Get()->M_PostObject(Ptr<GraphicsObject>(program.Get()), nullptr);
        // A small target: the device's own work per draw stays small, and it
        // is not what is measured.
        target = TextureFactory::Get()->Create2DRT(16, 16, GraphicsFormat::R8G8B8A8_UNORM);
        for (int i = 0; i < 2; ++i)
        {
            Ptr<Image> image(new Image());
            image->Create(TextureFactory::Make2DDesc(4, 4, GraphicsFormat::R8G8B8A8_UNORM, 1));
            image->FillData(uint8(60 + 120 * i));
            textures[i] = TextureFactory::Get()->Create(Ptr<Object>(image.Get()), GraphicsResourceUsage::Immutable,
                                                        nullptr);
        }
        VertexElement elements[2];
        elements[0].Assign(GraphicsSemantic::Position, 0, GraphicsLayoutFormat::Float3, 0, 0,
                           GraphicsInputClass::PerVertex, 0);
        elements[1].Assign(GraphicsSemantic::TexCoord, 0, GraphicsLayoutFormat::Float2, 0, 12,
                           GraphicsInputClass::PerVertex, 0);
        const float v[3][5] = {{-0.5f, -0.5f, 0.5f, 0, 1}, {0, 0.5f, 0.5f, 0.5f, 0}, {0.5f, -0.5f, 0.5f, 1, 1}};
        Ptr<VertexBuffer::Stream> stream = VertexBuffer::Stream::Create(elements, 2, 3, true);
        memcpy(stream->GetPointer(0), v, sizeof(v));
        triangle = VertexBufferFactory::Get()->Create(stream, 0, GraphicsResourceUsage::Immutable, nullptr);
        SamplerStateDesc point;
        sampler = SamplerStateFactory::Get()->Create(point);
        ok = program->IsCreated() && target && textures[0] && textures[1] && triangle && sampler;
    }
    // One draw of the triangle; `buffers` holds the one vertex buffer.
    DrawBuffersDesc MakeDraw(VertexBuffer* (&buffers)[1])
    {
        buffers[0] = triangle.Get();
        DrawBuffersDesc draw;
        draw.VertexBuffers = buffers;
        draw.VertexBufferCount = 1;
        draw.Count = 3;
        return draw;
    }
    void Bind(Renderer& r)
    {
        RenderTargetGroup group;
        group.SetRenderTarget(0, target, 0);
        r.SetRTGroup(group);
        r.SetViewport(16, 16);
        program->ApplyProgram();
        program->CommitSampler(u"Albedo", sampler);
    }
};

// Recording time only: the submission and the device's work are left out.
void SubmitUntimed(benchmark::State& state, VulkanRenderer& r)
{
    state.PauseTiming();
    r.EndFrame();
    r.Present();
    r.SubmitFrame(true);
    state.ResumeTiming();
}

void BM_Vulkan_ProgramDraws10000(benchmark::State& state)
{
    VulkanEngine engine;
    if (!engine.CanDraw())
    {
        state.SkipWithError("no Vulkan device that draws");
        return;
    }
    VulkanRenderer& r = *VulkanRenderer::Get();
    DrawScene scene;
    if (!scene.ok)
    {
        state.SkipWithError("the program could not be made");
        return;
    }
    VertexBuffer* buffers[1];
    const DrawBuffersDesc draw = scene.MakeDraw(buffers);
    for (auto _ : state)
    {
        r.BeginFrame();
        scene.Bind(r);
        for (int i = 0; i < kDraws; ++i)
        {
            const float tint[4] = {float(i & 255) / 255.0f, 0.5f, 1.0f, 1.0f};
            scene.program->CommitTexture(u"Albedo", scene.textures[i & 1]);
            scene.program->CommitConstantByName(u"Tint", tint, 16, 16);
            if (!r.DrawWithProgram(draw))
            {
                state.SkipWithError("draw failed");
                break;
            }
        }
        SubmitUntimed(state, r);
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * kDraws);
    state.counters["pipelines"] = double(r.GetPipelines().GetCount());
}
BENCHMARK(BM_Vulkan_ProgramDraws10000)->Unit(benchmark::kMillisecond)->UseRealTime();

// The baseline: the commands the engine records for those draws, recorded
// straight: the constant copied into mapped memory, rendering begun, the
// dynamic state, pipeline, descriptors pushed, vertex buffer, draw, rendering
// ended. Needs push descriptors (lavapipe and NVIDIA have them).
void BM_Vulkan_Baseline_RawDraws10000(benchmark::State& state)
{
    VulkanEngine engine;
    VulkanRenderer* renderer = VulkanRenderer::Get();
    if (!engine.CanDraw() || !renderer->GetDevice().GetPushDescriptor())
    {
        state.SkipWithError("no Vulkan device that draws and pushes descriptors");
        return;
    }
    VulkanRenderer& r = *renderer;
    VulkanDevice& device = r.GetDevice();
    DrawScene scene;
    if (!scene.ok)
    {
        state.SkipWithError("the program could not be made");
        return;
    }
    // One engine draw makes the pipeline and moves every image to its layout.
    VertexBuffer* buffers[1];
    const DrawBuffersDesc draw = scene.MakeDraw(buffers);
    r.BeginFrame();
    scene.Bind(r);
    scene.program->CommitTexture(u"Albedo", scene.textures[0]);
    scene.program->CommitTexture(u"Albedo", scene.textures[1]);
    bool drew = r.DrawWithProgram(draw);
    scene.program->CommitTexture(u"Albedo", scene.textures[0]);
    drew = drew && r.DrawWithProgram(draw);
    r.EndFrame();
    r.Present();
    r.SubmitFrame(true);
    // The pipeline the engine made, found again by its key.
    auto* state0 = static_cast<VulkanProgramState*>(scene.program->GetDeviceState());
    auto* vs = static_cast<VulkanShader*>(scene.program->GetShader(ShaderType::Vertex));
    auto* ps = static_cast<VulkanShader*>(scene.program->GetShader(ShaderType::Pixel));
    auto* target = static_cast<VulkanTexture*>(scene.target.Get());
    Ptr<VertexDecl> decl = VertexDeclManager::Ins()->Create(scene.triangle->GetVertexStream()->GetElements());
    VulkanPipelineKey key;
    key.Vertex = vs->GetModule();
    key.Pixel = ps->GetModule();
    key.Entries[0] = vs->GetEntryPoint();
    key.Entries[1] = ps->GetEntryPoint();
    key.PipelineLayout = state0->GetPipelineLayout();
    key.VertexInputs = &vs->GetReflection();
    key.Layout = decl.Get();
    key.Blend = r.GetCurBlendState().Get();
    key.Rasterizer = r.GetCurRasterizerState().Get();
    key.DepthStencil = r.GetCurDepthStencilState().Get();
    key.Colors[0] = target->GetTargetFormat();
    key.ColorCount = 1;
    const size_t pipelines = r.GetPipelines().GetCount();
    VkPipeline pipeline = r.GetPipelines().Get(key);
    // The same constants ring the engine fills, made here.
    const uint64 align = device.GetProperties().limits.minUniformBufferOffsetAlignment;
    const uint64 stride = align > 16 ? align : 16;
    VkBufferCreateInfo info = {VK_STRUCTURE_TYPE_BUFFER_CREATE_INFO};
    info.size = stride * kDraws;
    info.usage = VK_BUFFER_USAGE_UNIFORM_BUFFER_BIT;
    VkBuffer ring = VK_NULL_HANDLE;
    VulkanAllocation memory;
    VkMemoryRequirements requirements = {};
    bool ok = drew && pipeline && r.GetPipelines().GetCount() == pipelines &&
              vkCreateBuffer(device.GetDevice(), &info, nullptr, &ring) == VK_SUCCESS;
    if (ok)
    {
        vkGetBufferMemoryRequirements(device.GetDevice(), ring, &requirements);
        ok = device.GetMemory().Allocate(requirements,
                                         VK_MEMORY_PROPERTY_HOST_VISIBLE_BIT | VK_MEMORY_PROPERTY_HOST_COHERENT_BIT,
                                         true, memory) &&
             vkBindBufferMemory(device.GetDevice(), ring, memory.Memory, memory.Offset) == VK_SUCCESS;
    }
    VkSamplerCreateInfo samplerInfo = {VK_STRUCTURE_TYPE_SAMPLER_CREATE_INFO};
    samplerInfo.maxLod = 1000.0f;
    VkSampler sampler = VK_NULL_HANDLE;
    ok = ok && vkCreateSampler(device.GetDevice(), &samplerInfo, nullptr, &sampler) == VK_SUCCESS;
    if (!ok)
        state.SkipWithError("the baseline's objects could not be made");
    const VkImageView views[2] = {static_cast<VulkanTexture*>(scene.textures[0].Get())->GetSampledView(),
                                  static_cast<VulkanTexture*>(scene.textures[1].Get())->GetSampledView()};
    VkBuffer vertexBuffer = static_cast<VulkanVertexBuffer*>(scene.triangle.Get())->GetDeviceMemory().GetBuffer();
    const VkDeviceSize vertexOffset = 0;
    PFN_vkCmdPushDescriptorSetKHR push = device.GetPushDescriptor();
    for (auto _ : state)
    {
        if (!ok)
            break;
        r.BeginFrame();
        VkCommandBuffer cmd = r.GetFrameCommands();
        VkRenderingAttachmentInfoKHR attachment = {VK_STRUCTURE_TYPE_RENDERING_ATTACHMENT_INFO_KHR};
        attachment.imageView = target->GetTargetView(0);
        attachment.imageLayout = VK_IMAGE_LAYOUT_COLOR_ATTACHMENT_OPTIMAL;
        attachment.loadOp = VK_ATTACHMENT_LOAD_OP_LOAD;
        attachment.storeOp = VK_ATTACHMENT_STORE_OP_STORE;
        VkRenderingInfoKHR rendering = {VK_STRUCTURE_TYPE_RENDERING_INFO_KHR};
        rendering.renderArea.extent = {16, 16};
        rendering.layerCount = 1;
        rendering.colorAttachmentCount = 1;
        rendering.pColorAttachments = &attachment;
        const VkViewport viewport = {0, 16, 16, -16, 0, 1};
        const VkRect2D scissor = {{0, 0}, {16, 16}};
        const float blend[4] = {1, 1, 1, 1};
        for (int i = 0; i < kDraws; ++i)
        {
            const float tint[4] = {float(i & 255) / 255.0f, 0.5f, 1.0f, 1.0f};
            memcpy(memory.Mapped + stride * i, tint, 16);
            device.GetBeginRendering()(cmd, &rendering);
            vkCmdSetViewport(cmd, 0, 1, &viewport);
            vkCmdSetScissor(cmd, 0, 1, &scissor);
            vkCmdSetStencilReference(cmd, VK_STENCIL_FACE_FRONT_AND_BACK, 0);
            vkCmdSetBlendConstants(cmd, blend);
            vkCmdBindPipeline(cmd, VK_PIPELINE_BIND_POINT_GRAPHICS, pipeline);
            VkDescriptorBufferInfo constants = {ring, stride * i, 16};
            VkDescriptorImageInfo image = {VK_NULL_HANDLE, views[i & 1], VK_IMAGE_LAYOUT_SHADER_READ_ONLY_OPTIMAL};
            VkDescriptorImageInfo samplerDescriptor = {sampler, VK_NULL_HANDLE, VK_IMAGE_LAYOUT_UNDEFINED};
            VkWriteDescriptorSet writes[3] = {};
            const VkDescriptorType types[3] = {VK_DESCRIPTOR_TYPE_UNIFORM_BUFFER, VK_DESCRIPTOR_TYPE_SAMPLED_IMAGE,
                                               VK_DESCRIPTOR_TYPE_SAMPLER};
            const uint32 slots[3] = {0, 16, 32};
            for (int w = 0; w < 3; ++w)
            {
                writes[w].sType = VK_STRUCTURE_TYPE_WRITE_DESCRIPTOR_SET;
                writes[w].dstBinding = slots[w];
                writes[w].descriptorCount = 1;
                writes[w].descriptorType = types[w];
            }
            writes[0].pBufferInfo = &constants;
            writes[1].pImageInfo = &image;
            writes[2].pImageInfo = &samplerDescriptor;
            push(cmd, VK_PIPELINE_BIND_POINT_GRAPHICS, key.PipelineLayout, 0, 3, writes);
            vkCmdBindVertexBuffers(cmd, 0, 1, &vertexBuffer, &vertexOffset);
            vkCmdDraw(cmd, 3, 1, 0, 0);
            device.GetEndRendering()(cmd);
        }
        SubmitUntimed(state, r);
    }
    state.SetItemsProcessed(int64_t(state.iterations()) * kDraws);
    r.SubmitFrame(true);
    if (sampler)
        vkDestroySampler(device.GetDevice(), sampler, nullptr);
    if (ring)
        vkDestroyBuffer(device.GetDevice(), ring, nullptr);
    device.GetMemory().Free(memory);
}
BENCHMARK(BM_Vulkan_Baseline_RawDraws10000)->Unit(benchmark::kMillisecond)->UseRealTime();
#endif

// memcpy of as many bytes as the figure beside it moves.
void BM_Vulkan_Baseline_Memcpy(benchmark::State& state)
{
    const size_t bytes = size_t(state.range(0));
    std::vector<uint8> from(bytes, 7), to(bytes);
    for (auto _ : state)
    {
        memcpy(to.data(), from.data(), bytes);
        benchmark::DoNotOptimize(to.data());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(bytes));
}
BENCHMARK(BM_Vulkan_Baseline_Memcpy)->Arg(int64_t(kFrameBytes))->Arg(int64_t(kBigBytes))->Unit(benchmark::kMillisecond);

// Times `upload` (which makes one device object from 64 MiB) up to the end
// of its copy on the device and, untimed, drops what it made and lets the
// factories destroy it at a frame start.
template <typename UPLOAD>
void TimeUploads(benchmark::State& state, UPLOAD upload)
{
    for (auto _ : state)
    {
        Ptr<GraphicsObject> made = upload();
        if (!made || !made->IsCreated() || !VulkanRenderer::Get()->SubmitFrame(true))
            state.SkipWithError("upload failed");
        state.PauseTiming();
        made = nullptr;
        Kovex_FrameBegin();
        Kovex_FrameEnd();
        state.ResumeTiming();
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * int64_t(kBigBytes));
}

void BM_Vulkan_UploadTexture64MiB(benchmark::State& state)
{
    VulkanEngine engine;
    if (!engine.ok)
    {
        state.SkipWithError("no Vulkan device");
        return;
    }
    Ptr<Image> image(new Image());
    image->Create(TextureFactory::Make2DDesc(4096, 4096, GraphicsFormat::R8G8B8A8_UNORM, 1));
    image->FillData(0x5A);
    TimeUploads(state, [&] {
        return Ptr<GraphicsObject>(
            TextureFactory::Get()->Create(Ptr<Object>(image.Get()), GraphicsResourceUsage::Immutable, nullptr).Get());
    });
}
BENCHMARK(BM_Vulkan_UploadTexture64MiB)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_Vulkan_UploadBuffer64MiB(benchmark::State& state)
{
    VulkanEngine engine;
    if (!engine.ok)
    {
        state.SkipWithError("no Vulkan device");
        return;
    }
    VertexElement element;
    element.Assign(GraphicsSemantic::Position, 0, GraphicsLayoutFormat::Float4, 0, 0, GraphicsInputClass::PerVertex, 0);
    Ptr<VertexBuffer::Stream> stream = VertexBuffer::Stream::Create(&element, 1, uint32(kBigBytes / 16), true);
    memset(stream->GetPointer(0), 0x3C, kBigBytes);
    TimeUploads(state, [&] {
        return Ptr<GraphicsObject>(
            VertexBufferFactory::Get()->Create(stream, 0, GraphicsResourceUsage::Default, nullptr).Get());
    });
}
BENCHMARK(BM_Vulkan_UploadBuffer64MiB)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace
