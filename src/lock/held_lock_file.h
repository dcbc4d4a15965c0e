#ifndef ORVANE_LOCK_HELD_LOCK_FILE_H
#define ORVANE_LOCK_HELD_LOCK_FILE_H

// A handle's held lock file, with the loss callback its holder registered.
// The pointer has a mutex of its own, apart from the handle's: a loss
// callback may ask isLost() while the handle's mutex is held by a release
// that is joining that very callback's refresh thread.

#include <boost/shared_ptr.hpp>
#include <boost/thread/lock_guard.hpp>
#include <boost/thread/mutex.hpp>

#include "orvane/lock_file.h"

namespace detail {

class HeldLockFile {
public:
    HeldLockFile() = default;
    explicit HeldLockFile(const boost::shared_ptr<ovLockFile>& file) : file_(file) {}
    HeldLockFile(const HeldLockFile&) = delete;
    HeldLockFile& operator=(const HeldLockFile&) = delete;

    // Takes ownership of `file` (null: lets go). The previous file goes
    // outside the mutex: its destructor joins its refresh thread.
    void reset(ovLockFile* file = 0) { reset(boost::shared_ptr<ovLockFile>(file)); }
    void reset(boost::shared_ptr<ovLockFile> file) {
        {
            boost::lock_guard<boost::mutex> guard(mutex_);
            if (file && callback_) file->setLostCallback(callback_);
            file_.swap(file);
        }
    }

    boost::shared_ptr<ovLockFile> get() const {
        boost::lock_guard<boost::mutex> guard(mutex_);
        return file_;
    }
    explicit operator bool() const { return static_cast<bool>(get()); }
    ovLockFile& operator*() const { return *get(); }
    ovLockFile* operator->() const { return get().get(); }

    ovLockLossReason lossReason() const {
        const boost::shared_ptr<ovLockFile> file = get();
        return file ? file->getLossReason() : ovLockNotLost;
    }
    void setCallback(const ovLockLostCallback& callback) {
        boost::lock_guard<boost::mutex> guard(mutex_);
        callback_ = callback;
        if (file_) file_->setLostCallback(callback);
    }
    ovLockLostCallback callback() const {
        boost::lock_guard<boost::mutex> guard(mutex_);
        return callback_;
    }

private:
    mutable boost::mutex mutex_;
    boost::shared_ptr<ovLockFile> file_;
    ovLockLostCallback callback_;
};

}  // namespace detail

#endif
