// Label textures by text and style. Eviction is by first insertion, not by last use: labels
// are short-lived and the cache only has to bound memory, so the cheaper rule is enough. An
// evicted texture is handed back through takeEvicted() rather than destroyed at once.
#pragma once

#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

namespace kelvo {

// What a label texture depends on besides its text: the backing scale × 100 and the label
// colour's components × 255, all rounded.
struct LabelTextureStyleKey {
    int scale = 0;
    int red = 0;
    int green = 0;
    int blue = 0;
    int alpha = 0;
    bool operator==(const LabelTextureStyleKey&) const = default;
};

struct LabelTextureKey {
    std::string text;
    LabelTextureStyleKey style;
    bool operator==(const LabelTextureKey&) const = default;
};

struct LabelTextureKeyHash {
    std::size_t operator()(const LabelTextureKey& key) const;
};

template <class Texture>
class LabelTextureCache {
public:
    static constexpr std::size_t kCapacity = 64;

    Texture* find(const LabelTextureKey& key) const {
        auto it = textures_.find(key);
        return it == textures_.end() ? nullptr : it->second.get();
    }

    // Stores `texture` under `key`; a key already present keeps its place in the order.
    Texture* insert(const LabelTextureKey& key, std::unique_ptr<Texture> texture) {
        Texture* stored = texture.get();
        auto [it, inserted] = textures_.insert_or_assign(key, std::move(texture));
        if (inserted) order_.push_back(key);
        if (order_.size() > kCapacity) {
            const std::size_t excess = order_.size() - kCapacity;
            for (std::size_t i = 0; i < excess; ++i) {
                auto node = textures_.extract(order_.front());
                if (!node.empty()) evicted_.push_back(std::move(node.mapped()));
                order_.pop_front();
            }
        }
        return stored;
    }

    // Textures evicted since the last call. A label drawn in the frame that evicted its texture
    // still uses it, so the caller keeps these until that frame's labels are replaced.
    std::vector<std::unique_ptr<Texture>> takeEvicted() { return std::exchange(evicted_, {}); }

    void clear() {
        textures_.clear();
        order_.clear();
        evicted_.clear();
    }

    std::size_t size() const { return textures_.size(); }
    const std::deque<LabelTextureKey>& order() const { return order_; }

private:
    std::unordered_map<LabelTextureKey, std::unique_ptr<Texture>, LabelTextureKeyHash> textures_;
    std::deque<LabelTextureKey> order_;
    std::vector<std::unique_ptr<Texture>> evicted_;
};

}  // namespace kelvo
