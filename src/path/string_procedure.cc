// Out-of-line members of the callback bases, so that their virtual tables
// live in the library.

#include "orvane/path.h"

ovStringProcedure::~ovStringProcedure() {}

void ovIgnoreString::operator()(const char*) const {}

ovStringPredicate::~ovStringPredicate() {}
