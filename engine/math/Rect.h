#pragma once

// An integer rectangle: left and top inclusive, right and bottom exclusive,
// as viewports and scissor boxes are given.

#include "kernel/ReflectedStruct.h"
#include "kernel/Types.h"

namespace KovexEngine {

struct KOVEX_API Rect
{
    KOVEX_STRUCT(Rect)
    int32 left = 0;
    int32 top = 0;
    int32 right = 0;
    int32 bottom = 0;

    Rect() = default;
    Rect(int32 l, int32 t, int32 r, int32 b) : left(l), top(t), right(r), bottom(b) {}
    int32 Width() const { return right - left; }
    int32 Height() const { return bottom - top; }
    bool operator==(const Rect& o) const
    {
        return left == o.left && top == o.top && right == o.right && bottom == o.bottom;
    }
};

} // namespace KovexEngine
