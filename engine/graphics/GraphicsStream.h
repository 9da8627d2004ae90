#pragma once

// The CPU copy of a buffer's content: what is written, tracked dirty,
// uploaded and serialised (section "GSSM" with the raw bytes as "DATA").
// GraphicsStream2 tracks dirt as one whole-stream region, GraphicsStream3 as
// a flag.
//
// Threads: a stream belongs to one thread at a time (its writer; the
// graphics side while it uploads across the frame hand-over).

#include "io/Stream.h"
#include "reflection/EngineEnums.h"
#include "reflection/Object.h"

namespace KovexEngine {

class KOVEX_API GraphicsStream : public Object
{
    KOVEX_CLASS(GraphicsStream)

public:
    struct Region
    {
        uint32 offset = 0;
        uint32 size = 0;
    };

    virtual bool IsDirty() const = 0;
    virtual void MakeDirty(uint32 offset, uint32 size) = 0;
    virtual void MakeClean() = 0;
    virtual bool IsDynamic() const { return false; }
    virtual MapType GetValidateMapType() const { return MapType::WriteDiscard; }
    // The stream the device reads; a dynamic stream's second copy.
    virtual GraphicsStream* GetGpuReadStream() { return this; }
    virtual void SetGpuReadStream(const Ptr<GraphicsStream>&) {}
    // False, nothing read, when position plus size passes the length.
    virtual bool InternalRead(void* data, uint32 size);
    // Marks the written range dirty on success.
    virtual bool InternalWrite(const void* data, uint32 size);

    uint8* GetPointer(uint32 offset = 0) const;
    uint8* GetCurrentPointer() const { return m_data.GetCurPtr(); }
    uint32 GetPosition() const { return m_data.GetPosition(); }
    bool SetPosition(uint32 position) { return m_data.SetPosition(position); }
    uint32 GetLength() const { return m_data.GetLength(); }
    bool IsEmpty() const { return m_data.IsEmpty(); }
    bool ExtendTo(uint32 size, bool keep) { return m_data.SetLength(size, keep); }
    bool GetAutoExtend() const { return m_data.GetAutoExtend(); }
    void SetAutoExtend(bool on) { m_data.SetAutoExtend(on); }

    // "GSSM" / "DATA". A failed load logs and leaves the stream as it was.
    bool Save(Serializer* serializer) const override;
    bool Load(Serializer* serializer) override;

protected:
    DataStream m_data;
};

class KOVEX_API GraphicsStream2 : public GraphicsStream
{
    KOVEX_CLASS(GraphicsStream2)

public:
    bool IsDirty() const override { return !m_regions.IsEmpty(); }
    // A write anywhere dirties the whole stream once: one upload.
    void MakeDirty(uint32 offset, uint32 size) override;
    void MakeClean() override { m_regions.Clear(); }
    const TArray<Region>& GetDirtyRegions() const { return m_regions; }
    bool Duplicate(Object* destination, unsigned int flags) const override;

private:
    TArray<Region> m_regions;
};

class KOVEX_API GraphicsStream3 : public GraphicsStream
{
    KOVEX_CLASS(GraphicsStream3)

public:
    bool IsDirty() const override { return m_dirty; }
    void MakeDirty(uint32, uint32) override { m_dirty = true; }
    void MakeClean() override { m_dirty = false; }
    bool Duplicate(Object* destination, unsigned int flags) const override;

private:
    bool m_dirty = false;
};

} // namespace KovexEngine
