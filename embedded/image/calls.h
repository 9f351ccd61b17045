// The record of the services that a loaded image calls: how often each, and if wanted a line for every call.
//
// A slot of the image's import table then points to a stub: one that counts and jumps on, or one that also hands the
// call to the tracer, which writes the line when the service returns.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "embedded/base/thread.h"

namespace embedded {

// What an image imports.
enum class ResultKind : uint8_t { None, Byte, Word16, Word32, Status, Word64 };

struct Service {
    const char *Name;
    void *Address;
    ResultKind Result;
    uint8_t Arguments; // those shown in a call trace; at most four
    // May raise: its address is a gate that hands the exception to the image's own handlers.
    bool Raises;
    // Bytes of each argument that is shown; 0 for eight. The rest of its register has no meaning.
    uint8_t Sizes[4];
};

enum class CallRecording { None, Counted, Traced };

// One import. The stubs know the offsets of the first two fields.
struct CallRecord {
    std::atomic<uint64_t> Calls;
    void *Target;
    std::string Module;
    std::string Name;
    Service Called;
};

// Receives each line of a trace, without its end; called in the calling thread at any IRQL, one call at a time. Not to
// be changed while an image runs.
using CallSink = std::function<void(const std::string &)>;
void SetCallSink(CallSink Sink);

// The stubs of one image, and their records.
class CallStubs {
public:
    // Room for Count imports. Throws std::bad_alloc when there is none.
    CallStubs(CallRecording Recording, size_t Count);
    ~CallStubs();
    CallStubs(const CallStubs &) = delete;
    CallStubs &operator=(const CallStubs &) = delete;

    // The address for the import's slot. At most Count times, then Seal.
    void *Add(const std::string &Module, const Service &Called);
    // Makes the stubs executable, and no longer writable.
    void Seal();

    // In the order they were added.
    const std::vector<std::unique_ptr<CallRecord>> &Records() const {
        return Records_;
    }

private:
    CallRecording Recording_;
    uint8_t *Code_ = nullptr;
    size_t Bytes_ = 0;
    size_t Used_ = 0;
    std::vector<std::unique_ptr<CallRecord>> Records_;
};

// There is a sink.
inline constinit std::atomic<bool> CallLinesWanted{false};

// A call of a raising service does not come through the tracer: its gate says so itself, on every call, so that nothing
// is done when no line is wanted. Not to be moved while it lasts.
class RaisingCall {
public:
    RaisingCall(const char *Name, uint8_t Count, uint64_t First, uint64_t Second, uint64_t Third) noexcept
        : Name_(Name), Count_(Count), Arguments_{First, Second, Third}, Begun_(0) {
        if (CallLinesWanted.load(std::memory_order_relaxed)) {
            Begin();
        }
    }
    RaisingCall(const RaisingCall &) = delete;
    RaisingCall &operator=(const RaisingCall &) = delete;
    void Ended(uint32_t Code) noexcept {
        if (Begun_ != 0) {
            End(Code);
        }
    }
    std::string Line(const std::string &Result) const;

private:
    void Begin() noexcept;
    void End(uint32_t Code) noexcept;

    const char *Name_;
    uint8_t Count_;
    uint64_t Arguments_[3];
    int64_t Begun_; // 0: no line is wanted
};

// The calls that this thread is in will not return: writes a line for each, the outermost first, and forgets them. When
// somebody keeps the sink busy for long, as a thread that was stopped in it does, they are only forgotten.
void WriteOpenCalls() noexcept;

// The calling thread is about to wait, perhaps for ever: the innermost call that it is in gets a line that says so,
// once.
void WriteWaitingCall() noexcept;

// Where a service really returns to when its return address is the tracer's; Depth counts the traced calls that the
// walk of the thread's stack has met, from 0. Null when Address is not the tracer's.
void *TracedReturn(const void *Address, size_t Depth) noexcept;

// Who really called the service whose return address is Return. For the paths of a service that verify or report.
void *NTAPI CallerOf(void *Return) noexcept;

} // namespace embedded
