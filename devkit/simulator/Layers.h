// The layers of a redirected function: what has been put around the real one.
//
// A simulation redirects more than a hundred functions. What does not depend on a function's signature is therefore
// outside of the templates: each line of them is compiled for each function.
#pragma once

#include <cstddef>
#include <memory>
#include <utility>
#include <vector>

#include "Lock.h"

namespace Simulator {

struct Core;

/// The position of a layer: those that watch (count, for example) enclose those that simulate the machine.
enum class Depth { Machine, Watch };

/// A layer of any function.
class AnyLayer {
public:
    explicit AnyLayer(Depth depth) : m_depth(depth) {}
    virtual ~AnyLayer() = default;
    AnyLayer(const AnyLayer &) = delete;
    AnyLayer &operator=(const AnyLayer &) = delete;
    [[nodiscard]] Depth ItsDepth() const { return m_depth; }

private:
    Depth m_depth;
};

/// The layers of one function, innermost first.
struct Layers {
    std::shared_ptr<Core> core;
    std::vector<std::shared_ptr<AnyLayer>> stack;
};

/// Holds a function's layers while there is a simulation. Calls that are under way keep those with which they began.
class LayersHolder {
public:
    void Begin(const std::shared_ptr<Core> &core);
    void Add(std::unique_ptr<AnyLayer> layer);
    void End();
    /// Null without a simulation, and for calls from inside the simulator.
    [[nodiscard]] std::shared_ptr<const Layers> ForCall();

private:
    std::shared_ptr<const Layers> Current();
    void Exchange(std::shared_ptr<const Layers> layers);

    Lock m_lock;
    std::shared_ptr<const Layers> m_layers;
};

template <class Signature>
class Next;

template <class Signature>
class LayerOf;

template <class R, class... Args>
class LayerOf<R(Args...)> : public AnyLayer {
public:
    using AnyLayer::AnyLayer;
    virtual R Run(const Next<R(Args...)> &next, Args... args) = 0;
};

template <class Signature, class Body>
class BodyLayer;

template <class Body, class R, class... Args>
class BodyLayer<R(Args...), Body> : public LayerOf<R(Args...)> {
public:
    BodyLayer(Depth depth, Body body) : LayerOf<R(Args...)>(depth), m_body(std::move(body)) {}
    R Run(const Next<R(Args...)> &next, Args... args) override { return static_cast<R>(m_body(next, args...)); }

private:
    Body m_body;
};

/// What a layer calls to go on: the layers below it, and below the last the real function. Valid during the call.
template <class R, class... Args>
class Next<R(Args...)> {
public:
    Next(const Layers &layers, std::size_t count, R (*real)(Args...))
        : m_layers(layers), m_count(count), m_real(real) {}
    Next(const Next &) = delete;
    Next &operator=(const Next &) = delete;
    R operator()(Args... args) const {
        if (m_count == 0)
            return m_real(args...);
        auto &layer = static_cast<LayerOf<R(Args...)> &>(*m_layers.stack[m_count - 1]);
        return layer.Run(Next(m_layers, m_count - 1, m_real), args...);
    }

private:
    const Layers &m_layers;
    std::size_t m_count;
    R (*m_real)(Args...);
};

}  // namespace Simulator
