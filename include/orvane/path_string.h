#ifndef ORVANE_PATH_STRING_H
#define ORVANE_PATH_STRING_H

// ovPathString_: a path value whose text always passes through a pluggable
// normalizer, so that what it holds is well formed (no "//", no white space
// at the ends). ovStringBundle: a non-owning list of text pieces from which a
// path is built or appended with one reservation and one normalization.

#include <cstring>
#include <ostream>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>

#include "orvane/export.h"

template <class S>
class ovPathString_;

// ---- Normalizers -----------------------------------------------------------

template <class P>
class OV_API ovStringNormalizer {
public:
    virtual ~ovStringNormalizer() {}
    // Replace the path's text by [text, text+length) and leave it normalized.
    virtual void assign(P& path, const char* text, unsigned long length) = 0;
    // Rewrite the path's text in place into normal form.
    virtual void normalize(P& path) = 0;
};

// No doubled separators, no white space (spaceChars) at either end.
template <class P>
class OV_API ovWellFormedPathNormalizer : public ovStringNormalizer<P> {
public:
    void assign(P& path, const char* text, unsigned long length) override;
    void normalize(P& path) override;

    static const char spaceChars[8];  // " \t\v\b\n\r\f": backspace included on purpose
    static const char doubleSep[3];   // "//"
};

// ---- Bundles of text pieces ------------------------------------------------

template <class C, class L>
class ovStringBundle {
public:
    static constexpr L unknown_length = static_cast<L>(-1);

    struct part_type {
        const C* data;
        mutable L length;  // unknown_length until first needed, then cached
        // A null piece counts as empty text.
        L size() const {
            if (length == unknown_length) length = data ? static_cast<L>(std::strlen(data)) : 0;
            return length;
        }
    };
    typedef std::vector<part_type> parts_type;

    ovStringBundle(const C* piece) { add(piece); }
    ovStringBundle(const C* piece, L length) { add(piece, length); }
    template <class S>
    ovStringBundle(const ovPathString_<S>& path) {
        add(path.c_str(), static_cast<L>(path.length()));
    }

    ovStringBundle& add(const C* piece) { return add(piece, unknown_length); }
    ovStringBundle& add(const C* piece, L length) {
        part_type p = {piece, length};
        parts_.push_back(p);
        return *this;
    }

    const parts_type& parts() const { return parts_; }

private:
    parts_type parts_;
};

// ---- The path class --------------------------------------------------------

// Where the separator before a name belongs, for parentEndIndex().
enum ovPathSepAction { ovExcludePathSep = 0, ovIncludePathSep = 1 };

template <class S>
class OV_API ovPathString_ {
public:
    typedef S string_type;
    typedef ovStringNormalizer<ovPathString_> normalizer_type;
    typedef boost::shared_ptr<normalizer_type> normalizer_ptr;
    typedef ovStringBundle<char, unsigned long> bundle_type;

    ovPathString_();                                  // the empty path
    ovPathString_(const S& text);                     // normalized copy of text
    ovPathString_(const char* text);                  // likewise; null gives the empty path
    ovPathString_(const bundle_type& parts);          // the parts joined, then normalized
    ovPathString_(const ovPathString_& other);        // shares the normalizers
    ovPathString_& operator=(const ovPathString_& other);
    ~ovPathString_();

    const S& str() const { return text; }
    const char* c_str() const { return text.c_str(); }
    unsigned long length() const { return static_cast<unsigned long>(text.length()); }
    bool empty() const { return text.empty(); }

    // Null text with a non-zero length throws std::invalid_argument.
    ovPathString_& assign(const char* text, unsigned long length);
    ovPathString_& assign(const bundle_type& parts);
    ovPathString_& append(const bundle_type& parts);
    // pos beyond the length throws std::out_of_range("basic_string::erase")
    // and leaves the path unchanged.
    ovPathString_& erase(unsigned long pos, unsigned long n);

    normalizer_ptr getDefaultNormalizer();
    ovPathString_& setNormalizer(normalizer_ptr n);

    // Detaches the path's normalizer for the span of one edit; edits made
    // meanwhile are stored verbatim until normalize() is called on the guard.
    class OV_API normalizer_proxy {
    public:
        explicit normalizer_proxy(ovPathString_& path);
        ~normalizer_proxy();
        void normalize();

        // The detached normalizer (empty when the path had none).
        const normalizer_ptr& saved() const { return saved_; }

    private:
        normalizer_proxy(const normalizer_proxy&);
        normalizer_proxy& operator=(const normalizer_proxy&);
        ovPathString_& path_;
        normalizer_ptr saved_;
    };

    // Path parts and iteration are declared below this line.
    //
    // A part is a view of the path's own text: the root "/" of an absolute
    // path, or a component between separators. Positions are pointers into
    // c_str(); null stands for the invalid position before the start, and the
    // terminating NUL for the invalid position at the end. Both report a part
    // length of 1. Iterators are invalidated by any change to the path.

    // Start of the next part after p (p before base gives base, p at the NUL
    // gives p): one byte forward, then over every separator.
    static const char* nextPartBegin(const char* p, const char* base);
    // Start of the part that holds p; p itself when invalid.
    static const char* thisPartBegin(const char* p, const char* base);
    // Trims one piece as joining does. first: a leading separator run becomes
    // one (pieces of two bytes or more), else all leading separators go.
    // keepTrailingSep: a trailing run becomes one, else all trailing
    // separators go. The last flag is accepted and ignored.
    static void trimPart_(const char*& data, unsigned long& length, bool first,
                          bool keepTrailingSep, bool unused = false);

    class OV_API const_part_iterator_base {
    public:
        const_part_iterator_base() : base_(nullptr), pos_(nullptr), len_(1) {}
        const_part_iterator_base(const char* base, const char* pos) : base_(base) { setPos(pos); }

        // Moves to p and recomputes the part length.
        void setPos(const char* p);

        const char* base() const { return base_; }
        const char* pos() const { return pos_; }     // null before the start
        unsigned long length() const { return len_; }
        // False before the start and at the terminating NUL.
        bool valid() const { return pos_ != nullptr && *pos_ != '\0'; }
        // The part's text; empty for an invalid position (whose length is 1).
        std::string str() const { return valid() ? std::string(pos_, len_) : std::string(); }
        std::string operator*() const { return str(); }
        // Offset of the position in the text; -1 before the start.
        long index() const { return pos_ ? static_cast<long>(pos_ - base_) : -1L; }

        bool operator==(const const_part_iterator_base& o) const {
            return base_ == o.base_ && pos_ == o.pos_;
        }
        bool operator!=(const const_part_iterator_base& o) const { return !(*this == o); }

    protected:
        const char* base_;
        const char* pos_;
        unsigned long len_;
    };

    // Walks parts from the last towards the first. Stepping off the front
    // gives the invalid position before the start; stepping (with a negative
    // count) past the last part stays on the last part.
    class OV_API const_reverse_part_iterator : public const_part_iterator_base {
    public:
        const_reverse_part_iterator() {}
        const_reverse_part_iterator(const char* base, const char* pos)
            : const_part_iterator_base(base, pos) {}

        // n > 0 steps towards the front, n < 0 towards the end.
        const_reverse_part_iterator& operator+=(int n);
        const_reverse_part_iterator& operator++() { return *this += 1; }
        const_reverse_part_iterator operator++(int) {
            const_reverse_part_iterator old(*this);
            *this += 1;
            return old;
        }
        // The position n steps from p, by the rule of operator+=.
        const char* at(const char* p, int n) const;
    };

    // On the last part ("/a/b/" gives "b"); "/" gives the root part, the
    // empty path the invalid position before the start.
    const_reverse_part_iterator rpartsBegin() const;
    // The invalid position before the start, where a reverse walk ends.
    const_reverse_part_iterator rpartsEnd() const;
    // i >= 0: the i-th part counted back from the last; i < 0: the (-i)-th
    // counted from the first (the root part of an absolute path is one part).
    const_reverse_part_iterator rpart(int i) const;

    // The text with exactly one "/" at its end ("" stays "").
    S slash() const;
    // Index of the extension's ".", or the length when there is none.
    unsigned long nameEndIndex() const;
    // Index of the last "/" (plus 1 with ovIncludePathSep); 0 without one.
    unsigned long parentEndIndex(ovPathSepAction a) const;

private:
    friend class ovWellFormedPathNormalizer<ovPathString_>;
    friend class normalizer_proxy;

    // Joins parts onto out by the rules of append, without normalizing.
    static void joinParts_(S& out, const bundle_type& parts);
    // Whether any part points into this path's own buffer.
    bool overlaps_(const bundle_type& parts) const;

    S text;
    normalizer_ptr normalizer;
    normalizer_ptr defaultNormalizer;
};

template <class S>
std::ostream& operator<<(std::ostream& os, const ovPathString_<S>& path) {
    return os << path.c_str();  // up to the first NUL, unquoted
}

template <class S>
bool operator==(const ovPathString_<S>& a, const ovPathString_<S>& b) {
    return a.str() == b.str();
}
template <class S>
bool operator!=(const ovPathString_<S>& a, const ovPathString_<S>& b) {
    return !(a == b);
}

typedef ovPathString_<std::string> ovPathString;

extern template class ovPathString_<std::string>;
extern template class ovWellFormedPathNormalizer<ovPathString_<std::string> >;

#endif
