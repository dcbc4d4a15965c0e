// ovPathString: a random sequence of construct / assign / append / erase /
// copy operations. After every step the text is in normal form (no "//", no
// white space at either end) and equals what a plain model of the join and
// normalize rules predicts; an erase past the end throws std::out_of_range
// and changes nothing; a copy is independent of later edits.

#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "fuzz_check.h"
#include "orvane/path_string.h"

namespace {

const char kSpaces[] = " \t\v\b\n\r\f";

bool isSpace(char c) { return c != '\0' && std::strchr(kSpaces, c) != nullptr; }

// Model of the normal form: runs of "/" become one, then white space is
// trimmed from both ends.
std::string modelNormalize(const std::string& s) {
    std::string out;
    for (char c : s) {
        if (c == '/' && !out.empty() && out.back() == '/') continue;
        out += c;
    }
    size_t b = 0;
    while (b < out.size() && isSpace(out[b])) ++b;
    size_t e = out.size();
    while (e > b && isSpace(out[e - 1])) --e;
    return out.substr(b, e - b);
}

// Model of joining one part onto the raw text.
void modelJoin(std::string& path, std::string part) {
    if (path.empty()) {
        while (part.size() >= 2 && part[0] == '/' && part[1] == '/') part.erase(0, 1);
    } else {
        size_t k = 0;
        while (k < part.size() && part[k] == '/') ++k;
        part.erase(0, k);
    }
    size_t last = part.find_last_not_of('/');
    if (last == std::string::npos) {
        if (!part.empty()) part = "/";
    } else if (part.size() - last > 2) {
        part.erase(last + 2);
    }
    if (!path.empty() && path.back() != '/') path += '/';
    path += part;
}

struct Parts {
    std::vector<std::string> texts;  // storage the bundle points into
    std::vector<bool> knownLength;

    ovPathString::bundle_type bundle() const {
        ovPathString::bundle_type b(texts[0].c_str(), knownLength[0]
                                                          ? texts[0].size()
                                                          : ovPathString::bundle_type::unknown_length);
        for (size_t i = 1; i < texts.size(); ++i) {
            if (knownLength[i]) b.add(texts[i].c_str(), texts[i].size());
            else b.add(texts[i].c_str());
        }
        return b;
    }
    // What the bundle means: a part of unknown length ends at its first NUL.
    std::vector<std::string> effective() const {
        std::vector<std::string> out;
        for (size_t i = 0; i < texts.size(); ++i) {
            out.push_back(knownLength[i] ? texts[i] : std::string(texts[i].c_str()));
        }
        return out;
    }
};

Parts readParts(ovfuzz::Input& in) {
    Parts p;
    const int n = 1 + in.byte() % 3;
    for (int i = 0; i < n; ++i) {
        const uint8_t flags = in.byte();
        p.texts.push_back(in.text());
        p.knownLength.push_back(flags & 1);
    }
    return p;
}

void checkNormal(const ovPathString& p, const char* op) {
    const std::string& s = p.str();
    const std::string shown = ovfuzz::show(s);
    FUZZ_CHECK(s.find("//") == std::string::npos, "%s left \"//\" in %s", op, shown.c_str());
    FUZZ_CHECK(s.empty() || (!isSpace(s.front()) && !isSpace(s.back())),
               "%s left white space at an end of %s", op, shown.c_str());
    FUZZ_CHECK(p.length() == s.size() && std::strlen(p.c_str()) <= s.size(),
               "%s: length disagrees with text", op);
}

void expectText(const ovPathString& p, const std::string& want, const char* op) {
    checkNormal(p, op);
    FUZZ_CHECK(p.str() == want, "%s gave %s, expected %s", op, ovfuzz::show(p.str()).c_str(),
               ovfuzz::show(want).c_str());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    ovfuzz::Input in(data, size);
    ovPathString path;
    std::vector<ovPathString> copies;
    std::vector<std::string> copyTexts;

    for (int step = 0; step < 16 && !in.empty(); ++step) {
        const uint8_t op = in.byte();
        switch (op % 7) {
            case 0: {  // construct from std::string (NUL bytes included)
                const std::string t = in.text();
                path = ovPathString(t);
                expectText(path, modelNormalize(t), "construct");
                break;
            }
            case 1: {  // assign(text, length)
                const std::string t = in.text();
                path.assign(t.data(), t.size());
                expectText(path, modelNormalize(t), "assign");
                break;
            }
            case 2: {  // assign(bundle)
                const Parts parts = readParts(in);
                std::string raw;
                for (const std::string& s : parts.effective()) modelJoin(raw, s);
                path.assign(parts.bundle());
                expectText(path, modelNormalize(raw), "assign bundle");
                break;
            }
            case 3: {  // append(bundle)
                const Parts parts = readParts(in);
                std::string raw = path.str();
                for (const std::string& s : parts.effective()) modelJoin(raw, s);
                path.append(parts.bundle());
                expectText(path, modelNormalize(raw), "append");
                break;
            }
            case 4: {  // erase, possibly past the end
                const unsigned long pos = in.byte();
                const uint8_t count = in.byte();
                const unsigned long n = count == 255 ? static_cast<unsigned long>(-1) : count;
                const std::string before = path.str();
                bool threw = false;
                try {
                    path.erase(pos, n);
                } catch (const std::out_of_range&) {
                    threw = true;
                }
                FUZZ_CHECK(threw == (pos > before.size()), "erase(%lu) on %zu bytes: threw=%d",
                           pos, before.size(), threw);
                if (threw) {
                    expectText(path, before, "failed erase");
                } else {
                    std::string model = before;
                    model.erase(pos, n);
                    expectText(path, modelNormalize(model), "erase");
                }
                break;
            }
            case 5: {  // a copy keeps its text whatever happens to the original
                if (copies.size() < 4) {
                    copies.push_back(path);
                    copyTexts.push_back(path.str());
                }
                break;
            }
            default: {  // an empty normalizer means the default one, not none
                path.setNormalizer(ovPathString::normalizer_ptr());
                const std::string t = in.text();
                path.assign(t.data(), t.size());
                expectText(path, modelNormalize(t), "assign after setNormalizer(empty)");
                break;
            }
        }
    }
    for (size_t i = 0; i < copies.size(); ++i) {
        FUZZ_CHECK(copies[i].str() == copyTexts[i], "copy %zu changed to %s", i,
                   ovfuzz::show(copies[i].str()).c_str());
    }
    // Normal form is a fixed point.
    ovPathString again(path.str());
    FUZZ_CHECK(again == path, "renormalizing changed %s", ovfuzz::show(path.str()).c_str());
    return 0;
}
