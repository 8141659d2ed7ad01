#include "ThreadSafeBuffer.h"

#include "core/support/Utf8.h"

#include <algorithm>

namespace veltra {

ThreadSafeBuffer::ThreadSafeBuffer(std::optional<std::size_t> limit) : limit_(limit) {}

void ThreadSafeBuffer::append(std::string_view bytes) {
    const std::lock_guard guard(lock_);
    if (!limit_) {
        data_.append(bytes);
        return;
    }
    const std::size_t limit = *limit_;
    if (limit == 0) {
        return;
    }
    if (bytes.size() >= limit) {
        data_.assign(bytes.substr(bytes.size() - limit));
        start_ = 0;
        return;
    }
    if (data_.size() < limit) {
        const std::size_t room = limit - data_.size();
        data_.append(bytes.substr(0, room));
        bytes.remove_prefix(std::min(room, bytes.size()));
        if (bytes.empty()) {
            return;
        }
    }
    // Full ring: overwrite the oldest bytes, wrapping at most once since bytes.size() < limit.
    const std::size_t first = std::min(bytes.size(), limit - start_);
    data_.replace(start_, first, bytes.substr(0, first));
    data_.replace(0, bytes.size() - first, bytes.substr(first));
    start_ = (start_ + bytes.size()) % limit;
}

std::string ThreadSafeBuffer::linearLocked() const {
    if (start_ == 0) {
        return data_;
    }
    std::string out;
    out.reserve(data_.size());
    out.append(data_, start_, std::string::npos);
    out.append(data_, 0, start_);
    return out;
}

std::string ThreadSafeBuffer::string() const {
    const std::lock_guard guard(lock_);
    return utf8::decodeLossy(linearLocked());
}

std::string ThreadSafeBuffer::bytes() const {
    const std::lock_guard guard(lock_);
    return linearLocked();
}

} // namespace veltra
