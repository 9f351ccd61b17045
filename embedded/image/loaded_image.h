// What is known of an image that is loaded: where it lies, what its file said, and which image an address is in.
//
// Reports, walks of stacks and faults ask here; embedded/loader makes such images.
#pragma once

#include <filesystem>
#include <memory>
#include <string_view>
#include <vector>

#include "embedded/image/calls.h"
#include "embedded/image/format.h"

namespace embedded {

class LoadedImage {
public:
    LoadedImage(const LoadedImage &) = delete;
    LoadedImage &operator=(const LoadedImage &) = delete;

    const std::filesystem::path &File() const {
        return File_;
    }
    const ImageFormat &Format() const {
        return Format_;
    }
    char *Base() const {
        return Base_;
    }
    bool Contains(const void *Address) const {
        return static_cast<const char *>(Address) >= Base_ &&
               static_cast<const char *>(Address) < Base_ + Format_.ImageSize;
    }
    // The Size bytes at Address lie in one section that can be read, and will be for as long as the image is loaded.
    // What the image says about itself is read only where this is so.
    bool Readable(const void *Address, size_t Size) const;
    // A function can begin at Rva.
    bool IsCode(uint32_t Rva) const;
    // The address of what the image exports, or null.
    void *Export(std::string_view Name) const;
    // Where the debug information lies beside the image; empty when there is none.
    const std::filesystem::path &Pdb() const {
        return Pdb_;
    }

    // What it imports, in the order of the file, and how often each was called while that was recorded.
    const std::vector<std::unique_ptr<CallRecord>> &Calls() const {
        return Stubs_->Records();
    }

protected:
    explicit LoadedImage(std::filesystem::path File) : File_(std::move(File)) {
    }
    ~LoadedImage() = default;

    // Makes ImageOf find it, or no more. FALSE when too many are loaded already.
    bool Enter() noexcept;
    void Leave() noexcept;

    std::filesystem::path File_;
    std::filesystem::path Pdb_;
    ImageFormat Format_;
    char *Base_ = nullptr;
    std::unique_ptr<CallStubs> Stubs_;
};

// The image that contains Address, or null. Images are few; the list is read without a lock.
LoadedImage *ImageOf(const void *Address) noexcept;

bool AnyImage() noexcept;

} // namespace embedded
