// Shared libraries that are no Providers, each in one way (compiled once for each, see tests/CMakeLists.txt).
#include "rvfsd/provider.h"

#ifdef OTHER_VERSION
extern "C" const RVFSD_PROVIDER_LIBRARY RvfsdProvider = {99, 0, nullptr, nullptr, nullptr};
#endif

#ifdef NO_VOLUMES
struct Nothing final : rvfsd::Provider {
    explicit Nothing(std::string_view) {
    }
    std::vector<std::string> Volumes() override {
        return {};
    }
    RVSTATUS OpenVolume(const rvfsd::Caller &, std::u16string_view, RVHANDLE &) override {
        return rvfsd::NotSupported;
    }
    RVSTATUS OpenDirectory(const rvfsd::Caller &, rvfsd::Place, RVHANDLE &) override {
        return rvfsd::NotSupported;
    }
    RVSTATUS OpenFile(const rvfsd::Caller &, rvfsd::Place, const rvfsd::FileRequest &, RVHANDLE &, ULONG &) override {
        return rvfsd::NotSupported;
    }
    RVSTATUS Query(const rvfsd::Caller &, RVHANDLE, rvfsd::Information &) override {
        return rvfsd::NotSupported;
    }
    RVSTATUS List(const rvfsd::Caller &, RVHANDLE, std::vector<rvfsd::Entry> &) override {
        return rvfsd::NotSupported;
    }
    RVSTATUS Read(const rvfsd::Caller &, RVHANDLE, ULONG64, void *, ULONG64, ULONG64 &) override {
        return rvfsd::NotSupported;
    }
};
RVFSD_PROVIDER(Nothing, "nothing");
#endif
