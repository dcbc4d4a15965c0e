#ifndef ORVANE_EXPORT_H
#define ORVANE_EXPORT_H

// The library is built with hidden visibility; only what carries OV_API is
// part of its binary interface.
#define OV_API __attribute__((visibility("default")))

#ifdef __cplusplus
extern "C" {
#endif
OV_API extern const char liborvane_version[];    // "major.minor.patch.tweak"
OV_API extern const char liborvane_build_date[]; // "YYYY-MM-DD"
#ifdef __cplusplus
}
#endif

#endif
