#include <cstring>

#include "orvane/path_string.h"

// The one concrete normalizer: no doubled separators and no white space at
// either end. Purely textual; nothing here touches the file system.

template <class P>
const char ovWellFormedPathNormalizer<P>::spaceChars[8] = {' ', '\t', '\v', '\b', '\n', '\r', '\f', '\0'};

template <class P>
const char ovWellFormedPathNormalizer<P>::doubleSep[3] = "//";

namespace {

bool isSpace(const char* spaces, char c) { return c != '\0' && std::strchr(spaces, c) != nullptr; }

}  // namespace

template <class P>
void ovWellFormedPathNormalizer<P>::assign(P& path, const char* text, unsigned long length) {
    {
        typename P::normalizer_proxy guard(path);
        const typename P::normalizer_ptr& saved = guard.saved();
        // Our own assign would, with nothing attached, only store the bytes
        // before the normalize below; skip the round trip.
        if (saved && saved.get() != this) {
            saved->assign(path, text, length);
        } else if (text) {
            path.text.assign(text, length);
        } else {
            path.text.clear();
        }
    }
    normalize(path);
}

// The rules are: erase one "/" of every "//" until none is left, then erase
// white space at the front, then at the back, re-applying all rules after
// every erase. Erasing from a separator run never changes which byte is first
// or last, and trimming the ends never makes two separators adjacent, so one
// pass in this order already reaches the fixed point.
template <class P>
void ovWellFormedPathNormalizer<P>::normalize(P& path) {
    typename P::string_type& s = path.text;
    const char sep = doubleSep[0];

    if (s.find(doubleSep) != P::string_type::npos) {
        typename P::string_type::size_type out = 0;
        for (typename P::string_type::size_type in = 0; in < s.size(); ++in) {
            if (s[in] == sep && out > 0 && s[out - 1] == sep) continue;
            s[out++] = s[in];
        }
        s.resize(out);
    }

    typename P::string_type::size_type begin = 0, end = s.size();
    while (begin < end && isSpace(spaceChars, s[begin])) ++begin;
    while (end > begin && isSpace(spaceChars, s[end - 1])) --end;
    if (end < s.size()) s.erase(end);
    if (begin > 0) s.erase(0, begin);
}

template class ovWellFormedPathNormalizer<ovPathString_<std::string> >;
