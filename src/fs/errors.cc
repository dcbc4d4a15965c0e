// The exception family of the lock and file layer. Destructors are out of
// line so that each class has one home for its type information: the closed
// exception lists match these types across the library boundary.

#include "orvane/fs.h"

ovFileBasedLockError::ovFileBasedLockError(const std::string& message) : message_(message) {}
ovFileBasedLockError::~ovFileBasedLockError() {}
const char* ovFileBasedLockError::what() const noexcept { return message_.c_str(); }

ovNoSuchDirectory::ovNoSuchDirectory(const std::string& message) : ovFileBasedLockError(message) {}
ovNoSuchDirectory::~ovNoSuchDirectory() {}

ovPermissionDenied::ovPermissionDenied(const std::string& message) : ovFileBasedLockError(message) {}
ovPermissionDenied::~ovPermissionDenied() {}

ovFileNotFoundError::ovFileNotFoundError(const std::string& message) : ovFileBasedLockError(message) {}
ovFileNotFoundError::~ovFileNotFoundError() {}

ovFileAccessError::ovFileAccessError(const std::string& message) : ovFileBasedLockError(message) {}
ovFileAccessError::~ovFileAccessError() {}
