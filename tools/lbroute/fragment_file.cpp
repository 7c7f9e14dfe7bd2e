#include "lbroute/fragment_file.h"

#include <cerrno>
#include <cstring>

#include "shared/file_text.h"

namespace lbroute {

namespace {

/// Far more than any router's destinations take.
constexpr std::size_t longest_fragment = 64 * 1024 * 1024;

}  // namespace

void FragmentFile::read(std::int64_t now_ms) {
    problems_.clear();
    is_current_ = false;
    is_missing_ = false;
    read_again_at_ms_.reset();
    int error = 0;
    const auto text = shared::text_of_regular_file(path_, longest_fragment, error);
    if (!text) {
        empty_since_ms_.reset();
        was_read_again_ = false;
        is_missing_ = error == ENOENT;
        if (!is_missing_) {
            problems_[path_ + " cannot be read: " + strerror(error) +
                      "; its routes stay as they are"] = Level::error;
        }
        return;
    }
    take(parse_fragment(*text, family_), now_ms);
}

void FragmentFile::take(const FragmentReading& reading, std::int64_t now_ms) {
    switch (reading.wholeness) {
        case Wholeness::empty:
            was_read_again_ = false;
            if (!empty_since_ms_) {
                empty_since_ms_ = now_ms;
            }
            if (now_ms - *empty_since_ms_ < fragment_patience_ms) {
                read_again_at_ms_ = *empty_since_ms_ + fragment_patience_ms;
                return;
            }
            in_force_ = Fragment{};
            is_current_ = true;
            return;
        case Wholeness::incomplete:
            empty_since_ms_.reset();
            for (const FragmentFault& fault : reading.faults) {
                problems_[path_ + " line " + std::to_string(fault.line) + ": " + fault.reason +
                          "; its routes stay as they are"] = Level::warning;
            }
            // Once: whoever goes on writing it later is noticed.
            if (!was_read_again_) {
                read_again_at_ms_ = now_ms + fragment_patience_ms;
            }
            was_read_again_ = !was_read_again_;
            return;
        case Wholeness::whole:
            empty_since_ms_.reset();
            was_read_again_ = false;
            in_force_ = reading.fragment;
            is_current_ = true;
            for (const FragmentFault& fault : reading.faults) {
                problems_[path_ + " line " + std::to_string(fault.line) + ": " + fault.reason] =
                    Level::warning;
            }
            return;
    }
}

}  // namespace lbroute
