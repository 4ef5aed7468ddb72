#include "companion/DigestSet.h"

#include <utility>

namespace {

constexpr std::size_t INITIAL_SLOTS = 1024;

bool isEmpty(const KeyDigest::Digest& slot) { return slot.first == 0 && slot.second == 0; }

}  // namespace

DigestSet::DigestSet() : slots_(INITIAL_SLOTS), size_(0) {}

KeyDigest::Digest DigestSet::stored(KeyDigest::Digest digest) {
    if (isEmpty(digest)) {
        digest.second = 1;
    }
    return digest;
}

std::size_t DigestSet::slotOf(const KeyDigest::Digest& digest) const {
    return static_cast<std::size_t>(digest.first) & (slots_.size() - 1);
}

void DigestSet::insert(KeyDigest::Digest digest) {
    digest = stored(digest);
    const std::size_t mask = slots_.size() - 1;
    for (std::size_t at = slotOf(digest);; at = (at + 1) & mask) {
        KeyDigest::Digest& slot = slots_[at];
        if (slot == digest) {
            return;
        }
        if (isEmpty(slot)) {
            slot = digest;
            break;
        }
    }
    ++size_;
    if (size_ * 4 > slots_.size() * 3) {
        grow();
    }
}

bool DigestSet::contains(KeyDigest::Digest digest) const {
    digest = stored(digest);
    const std::size_t mask = slots_.size() - 1;
    for (std::size_t at = slotOf(digest);; at = (at + 1) & mask) {
        const KeyDigest::Digest& slot = slots_[at];
        if (slot == digest) {
            return true;
        }
        if (isEmpty(slot)) {
            return false;
        }
    }
}

void DigestSet::grow() {
    std::vector<KeyDigest::Digest> old(slots_.size() * 2);
    old.swap(slots_);
    const std::size_t mask = slots_.size() - 1;
    for (const KeyDigest::Digest& digest : old) {
        if (isEmpty(digest)) {
            continue;
        }
        std::size_t at = slotOf(digest);
        while (!isEmpty(slots_[at])) {
            at = (at + 1) & mask;
        }
        slots_[at] = digest;
    }
}
