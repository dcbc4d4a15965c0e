#include "orvane/path_string.h"

#include <functional>
#include <stdexcept>

#include "orvane/path.h"
#include "path/path_parts.h"

// The path class is instantiated here, once, for std::string; the header's
// extern template declarations make every user link against these members.

namespace {

// Always a new object: a path's default normalizer is its own (shared only
// with its copies), never a process-wide instance.
template <class P>
boost::shared_ptr<ovStringNormalizer<P> > newDefaultNormalizer() {
    return boost::shared_ptr<ovStringNormalizer<P> >(new ovWellFormedPathNormalizer<P>());
}

}  // namespace

// ---- Construction and assignment -------------------------------------------

template <class S>
ovPathString_<S>::ovPathString_()
    : normalizer(newDefaultNormalizer<ovPathString_>()), defaultNormalizer(normalizer) {}

template <class S>
ovPathString_<S>::ovPathString_(const S& t)
    : normalizer(newDefaultNormalizer<ovPathString_>()), defaultNormalizer(normalizer) {
    assign(t.data(), static_cast<unsigned long>(t.size()));
}

template <class S>
ovPathString_<S>::ovPathString_(const char* t)
    : normalizer(newDefaultNormalizer<ovPathString_>()), defaultNormalizer(normalizer) {
    if (t) assign(t, static_cast<unsigned long>(std::strlen(t)));
}

template <class S>
ovPathString_<S>::ovPathString_(const bundle_type& parts)
    : normalizer(newDefaultNormalizer<ovPathString_>()), defaultNormalizer(normalizer) {
    append(parts);
}

template <class S>
ovPathString_<S>::ovPathString_(const ovPathString_& other)
    : text(other.text), normalizer(other.normalizer), defaultNormalizer(other.defaultNormalizer) {}

template <class S>
ovPathString_<S>& ovPathString_<S>::operator=(const ovPathString_& other) {
    text = other.text;  // may throw; the normalizers are then untouched
    normalizer = other.normalizer;
    defaultNormalizer = other.defaultNormalizer;
    return *this;
}

template <class S>
ovPathString_<S>::~ovPathString_() {}

template <class S>
ovPathString_<S>& ovPathString_<S>::assign(const char* t, unsigned long len) {
    if (t == nullptr && len != 0) throw std::invalid_argument("ovPathString_::assign: null text");
    normalizer_proxy guard(*this);
    if (guard.saved()) {
        guard.saved()->assign(*this, t, len);
    } else if (t) {
        text.assign(t, len);  // safe even when t points into text
    } else {
        text.clear();
    }
    return *this;
}

template <class S>
ovPathString_<S>& ovPathString_<S>::assign(const bundle_type& parts) {
    normalizer_proxy guard(*this);
    if (overlaps_(parts)) {
        S joined;
        joinParts_(joined, parts);
        text.swap(joined);
    } else {
        text.clear();
        joinParts_(text, parts);
    }
    guard.normalize();
    return *this;
}

template <class S>
ovPathString_<S>& ovPathString_<S>::append(const bundle_type& parts) {
    normalizer_proxy guard(*this);
    if (overlaps_(parts)) {
        // Growing text could move the very bytes a part points at.
        S joined(text);
        joinParts_(joined, parts);
        text.swap(joined);
    } else {
        joinParts_(text, parts);
    }
    guard.normalize();
    return *this;
}

template <class S>
ovPathString_<S>& ovPathString_<S>::erase(unsigned long pos, unsigned long n) {
    // Checked before anything is detached, so a bad position leaves the path
    // exactly as it was.
    if (pos > text.size()) throw std::out_of_range("basic_string::erase");
    normalizer_proxy guard(*this);
    text.erase(pos, n);  // n is clipped to what is left after pos
    guard.normalize();
    return *this;
}

template <class S>
bool ovPathString_<S>::overlaps_(const bundle_type& parts) const {
    std::less<const char*> lt;
    const char* begin = text.data();
    const char* end = begin + text.capacity() + 1;
    for (const auto& part : parts.parts()) {
        if (part.data && !lt(part.data, begin) && lt(part.data, end)) return true;
    }
    return false;
}

template <class S>
void ovPathString_<S>::joinParts_(S& out, const bundle_type& parts) {
    // One reservation for the text, every part and a separator per part;
    // saturate instead of wrapping on absurd lengths (reserve then throws).
    const unsigned long maxLen = static_cast<unsigned long>(out.max_size());
    unsigned long need = static_cast<unsigned long>(out.size());
    for (const auto& part : parts.parts()) {
        unsigned long add = part.size();
        need = (add >= maxLen - need) ? maxLen : need + add;
        need = (need >= maxLen) ? maxLen : need + 1;
    }
    out.reserve(need);

    for (const auto& part : parts.parts()) {
        const char* data = part.data;
        unsigned long len = part.size();
        detail::trimPart(data, len, out.empty(), true);
        if (!out.empty() && !ovIsPathSep(out[out.size() - 1])) out.push_back('/');
        if (len) out.append(data, len);
    }
}

// ---- Normalizers -------------------------------------------------------------

template <class S>
typename ovPathString_<S>::normalizer_ptr ovPathString_<S>::getDefaultNormalizer() {
    if (!defaultNormalizer) defaultNormalizer = newDefaultNormalizer<ovPathString_>();
    return defaultNormalizer;
}

template <class S>
ovPathString_<S>& ovPathString_<S>::setNormalizer(normalizer_ptr n) {
    // Deliberately no re-normalization of the text already held.
    normalizer = n ? n : getDefaultNormalizer();
    return *this;
}

template <class S>
ovPathString_<S>::normalizer_proxy::normalizer_proxy(ovPathString_& path) : path_(path) {
    saved_.swap(path_.normalizer);
}

template <class S>
ovPathString_<S>::normalizer_proxy::~normalizer_proxy() {
    // Also runs when an edit throws: the path never stays without its
    // normalizer. A normalizer attached meanwhile gives way to the saved one.
    path_.normalizer.swap(saved_);
}

template <class S>
void ovPathString_<S>::normalizer_proxy::normalize() {
    if (saved_) saved_->normalize(path_);
}

// ---- Parts -------------------------------------------------------------------

template <class S>
const char* ovPathString_<S>::nextPartBegin(const char* p, const char* base) {
    return detail::nextPartBegin(p, base);
}

template <class S>
const char* ovPathString_<S>::thisPartBegin(const char* p, const char* base) {
    return detail::thisPartBegin(p, base);
}

template <class S>
void ovPathString_<S>::trimPart_(const char*& data, unsigned long& length, bool first,
                                 bool keepTrailingSep, bool) {
    detail::trimPart(data, length, first, keepTrailingSep);
}

template <class S>
void ovPathString_<S>::const_part_iterator_base::setPos(const char* p) {
    pos_ = (p == nullptr || std::less<const char*>()(p, base_)) ? nullptr : p;
    len_ = detail::partLength(base_, pos_);
}

template <class S>
typename ovPathString_<S>::const_reverse_part_iterator&
ovPathString_<S>::const_reverse_part_iterator::operator+=(int n) {
    this->setPos(at(this->pos_, n));
    return *this;
}

template <class S>
const char* ovPathString_<S>::const_reverse_part_iterator::at(const char* p, int n) const {
    return detail::stepParts(this->base_, p, n);
}

template <class S>
typename ovPathString_<S>::const_reverse_part_iterator ovPathString_<S>::rpartsBegin() const {
    const char* base = text.c_str();
    return const_reverse_part_iterator(base, detail::previousPart(base, base + std::strlen(base)));
}

template <class S>
typename ovPathString_<S>::const_reverse_part_iterator ovPathString_<S>::rpartsEnd() const {
    return const_reverse_part_iterator(text.c_str(), nullptr);
}

template <class S>
typename ovPathString_<S>::const_reverse_part_iterator ovPathString_<S>::rpart(int i) const {
    if (i >= 0) {
        const_reverse_part_iterator it = rpartsBegin();
        it += i;
        return it;
    }
    // Counted from the front: the first step lands on the first part.
    const char* base = text.c_str();
    return const_reverse_part_iterator(base, detail::stepParts(base, nullptr, i));
}

namespace {
// The separator searched for by the name and parent queries.
const char kSepText[] = "/";
}  // namespace

template <class S>
S ovPathString_<S>::slash() const {
    S out(text);
    if (!out.empty() && !ovIsPathSep(out[out.size() - 1])) out.push_back('/');
    return out;
}

template <class S>
unsigned long ovPathString_<S>::nameEndIndex() const {
    typename S::size_type dot = text.rfind('.');
    typename S::size_type sep = text.find_last_of(kSepText);
    // A "." at index 0 is a hidden name, not an extension; one right after
    // a "/" does count.
    if (dot != S::npos && dot != 0 && (sep == S::npos || dot > sep)) {
        return static_cast<unsigned long>(dot);
    }
    return length();
}

template <class S>
unsigned long ovPathString_<S>::parentEndIndex(ovPathSepAction a) const {
    typename S::size_type sep = text.find_last_of(kSepText);
    if (sep == S::npos) return 0;
    return static_cast<unsigned long>(sep) + (a == ovIncludePathSep ? 1 : 0);
}

template class ovPathString_<std::string>;
