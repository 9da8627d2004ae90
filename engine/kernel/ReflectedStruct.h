#pragma once

// The registration members of a reflected value type (a struct): declared in
// its body by KOVEX_STRUCT(X), defined in one source file by
// KOVEX_REGISTER_STRUCT (see reflection/Struct.h). Light enough for the math
// headers.

namespace KovexEngine {
class Class;
}

#define KOVEX_STRUCT(X)                                          \
public:                                                          \
    static const ::KovexEngine::Class* StaticGetClass();         \
    static bool _InitClass();                                    \
    static void StaticConstructor(::KovexEngine::Class* cls);    \
                                                                 \
public:
