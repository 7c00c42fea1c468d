// Calling receivers. Always with no manager lock held; one receiver's throw
// does not keep the others from being told.
#include <cstring>
#include <string>

#include "core/RaiseSites.h"
#include "manager/CacheManager.h"

namespace Tarn {
namespace {

void PostForeign(const char* what) {
  const std::string text = what;
  const std::wstring message = L"A receiver threw: " + std::wstring(text.begin(), text.end());
  Pt::Exception::Post(Pt::Exception(Pt::ExReason{message.c_str(), kReceiverThrew.where, 1}));
}

// Runs one receiver's call; what it throws is posted.
template <class Call>
void Guarded(Call call) {
  try {
    call();
  } catch (const Pt::Exception& escaped) {
    Pt::Exception::Post(escaped);
  } catch (const std::exception& escaped) {
    PostForeign(escaped.what());
  } catch (...) {
    PostForeign("(a value that is not a std::exception)");
  }
}

template <class Call>
void CallEach(const PendingList& receivers, Call call) {
  for (const PendingReceiver& pending : receivers) Guarded([&] { call(pending); });
}

}  // namespace

void DeliverFound(const PendingList& receivers, const Pt::SmartPointer<Cacheable>& cacheable) {
  CallEach(receivers, [&](const PendingReceiver& pending) {
    pending.receiver->found(pending.requestId, pending.key, cacheable);
  });
}

void DeliverFoundTo(int32_t requestId, const PrimaryKey& key, CacheableReceiver& receiver,
                    const Pt::SmartPointer<Cacheable>& cacheable) {
  Guarded([&] { receiver.found(requestId, key, cacheable); });
}

void DeliverCancelled(const PendingList& receivers) {
  CallEach(receivers, [](const PendingReceiver& pending) {
    pending.receiver->cancelled(pending.requestId, pending.key);
  });
}

void DeliverFailed(const PendingList& receivers, const Pt::Exception& error) {
  CallEach(receivers, [&](const PendingReceiver& pending) {
    pending.receiver->failed(pending.requestId, pending.key, error);
  });
}

}  // namespace Tarn
