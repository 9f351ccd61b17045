#include "embedded/image/loaded_image.h"

#include <algorithm>
#include <atomic>

namespace embedded {
namespace {

// Few images are ever loaded at once, and ImageOf is asked at every captured stack: read without a lock.
constexpr size_t MostImages = 8;
std::atomic<LoadedImage *> Loaded[MostImages];

} // namespace

bool LoadedImage::Enter() noexcept {
    return std::any_of(std::begin(Loaded), std::end(Loaded), [this](auto &Place) {
        LoadedImage *Free = nullptr;
        return Place.compare_exchange_strong(Free, this);
    });
}

void LoadedImage::Leave() noexcept {
    for (auto &Place : Loaded) {
        LoadedImage *Mine = this;
        Place.compare_exchange_strong(Mine, nullptr);
    }
}

void *LoadedImage::Export(std::string_view Name) const {
    for (const ImageExport &Each : Format_.Exports) {
        if (Each.Name == Name) {
            return Base_ + Each.Rva;
        }
    }
    return nullptr;
}

bool LoadedImage::Readable(const void *Address, size_t Size) const {
    if (!Contains(Address)) {
        return false;
    }
    const auto Rva = static_cast<uint32_t>(static_cast<const char *>(Address) - Base_);
    for (const ImageSection &Each : Format_.Sections) {
        if (Rva >= Each.Rva && Rva - Each.Rva < Each.Size) {
            return (Each.Readable || Each.Writable || Each.Executable) && !Each.Discardable &&
                   Size <= Each.Size - (Rva - Each.Rva);
        }
    }
    return false;
}

bool LoadedImage::IsCode(uint32_t Rva) const {
    return std::any_of(Format_.Sections.begin(), Format_.Sections.end(), [Rva](const ImageSection &Each) {
        return Each.Executable && Rva >= Each.Rva && Rva - Each.Rva < Each.Size;
    });
}

LoadedImage *ImageOf(const void *Address) noexcept {
    for (const auto &Place : Loaded) {
        LoadedImage *Each = Place.load(std::memory_order_acquire);
        if (Each != nullptr && Each->Contains(Address)) {
            return Each;
        }
    }
    return nullptr;
}

bool AnyImage() noexcept {
    return std::any_of(std::begin(Loaded), std::end(Loaded), [](const auto &Place) { return Place.load() != nullptr; });
}

} // namespace embedded
