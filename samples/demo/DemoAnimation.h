#pragma once

#include <string>

#include "KovexEngine.h"

// A node of a small scene graph moved by keyed animations: a walk that
// loops, cross-faded into a turn, with an event on the walk that prints.
class DemoAnimation
{
public:
    DemoAnimation();
    // One frame of the scene. The animation runs on a fixed step of 1/30 s a
    // frame so that what it prints does not depend on the machine's speed.
    void Frame(unsigned frame);
    void Report() const;
    // Saves the scene graph as ".node" in the binary and the XML form under
    // DIR, loads both back through the resource table and prints whether
    // each loaded tree matches (names and local transforms, node by node).
    // False when a save or load fails or a tree differs.
    bool RoundTrip(const std::string& dir) const;

private:
    void Heard(const KovexEngine::Ptr<KovexEngine::AnimState>& state, const KovexEngine::Ptr<KovexEngine::AnimModifier>&);

    KovexEngine::Ptr<KovexEngine::Node> m_root, m_mover;
    KovexEngine::Ptr<KovexEngine::NodeAnimModifier> m_modifier;
    unsigned m_frame = 0;
    unsigned m_events = 0;
};
