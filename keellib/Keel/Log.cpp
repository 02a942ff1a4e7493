#include "Keel/Log.h"

#include <atomic>

namespace Keel::Log {
namespace {

// Callback and context are swapped together so a reader never pairs one
// host's callback with another host's context.
struct Sink {
  Callback callback;
  void* context;
};

std::atomic<const Sink*> g_sink{nullptr};

}  // namespace

void SetCallback(Callback callback, void* context) {
  // Old sinks are leaked on purpose: a concurrent writer may still hold one.
  const Sink* sink = callback ? new Sink{callback, context} : nullptr;
  g_sink.store(sink, std::memory_order_release);
}

void WriteRelease(uint32_t severity, uint32_t component, uint32_t message, uint64_t a, uint64_t b,
                  uint64_t c, uint32_t line) {
  const Sink* sink = g_sink.load(std::memory_order_acquire);
  if (sink == nullptr) return;
  Record record{severity, component, message, {a, b, c}, line};
  sink->callback(record, sink->context);
}

}  // namespace Keel::Log
