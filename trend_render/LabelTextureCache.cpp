#include "trend_render/LabelTextureCache.h"

namespace kelvo {

std::size_t LabelTextureKeyHash::operator()(const LabelTextureKey& key) const {
    std::size_t hash = std::hash<std::string>{}(key.text);
    for (int part :
         {key.style.scale, key.style.red, key.style.green, key.style.blue, key.style.alpha})
        hash = hash * 31 + std::hash<int>{}(part);
    return hash;
}

}  // namespace kelvo
