#include "Layers.h"

#include <algorithm>

#include "CallScope.h"

namespace Simulator {

void LayersHolder::Begin(const std::shared_ptr<Core> &core) {
    Exchange(std::make_shared<const Layers>(Layers{core, {}}));
}

void LayersHolder::Add(std::unique_ptr<AnyLayer> layer) {
    Layers layers = *Current();
    const auto deeper = [&layer](const auto &other) { return other->ItsDepth() <= layer->ItsDepth(); };
    const auto place = std::find_if_not(layers.stack.begin(), layers.stack.end(), deeper);
    layers.stack.insert(place, std::move(layer));
    Exchange(std::make_shared<const Layers>(std::move(layers)));
}

void LayersHolder::End() {
    Exchange(nullptr);
}

std::shared_ptr<const Layers> LayersHolder::ForCall() {
    return InsideSimulator::Here() ? nullptr : Current();
}

std::shared_ptr<const Layers> LayersHolder::Current() {
    const LockGuard guard(m_lock);
    return m_layers;
}

void LayersHolder::Exchange(std::shared_ptr<const Layers> layers) {
    const LockGuard guard(m_lock);
    m_layers.swap(layers);
}

}  // namespace Simulator
