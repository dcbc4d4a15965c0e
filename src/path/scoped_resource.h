#ifndef ORVANE_PATH_SCOPED_RESOURCE_H
#define ORVANE_PATH_SCOPED_RESOURCE_H

// Owns a resource handed out by the host layer together with the function
// that releases it, so that it goes on every way out of a scope, exceptions
// from callbacks included.

template <class R>
class ovScopedResource {
public:
    typedef void (*release_fn)(void*);

    ovScopedResource(R resource, release_fn release) : resource_(resource), release_(release) {}
    ~ovScopedResource() {
        if (resource_) release_(resource_);
    }
    ovScopedResource(const ovScopedResource&) = delete;
    ovScopedResource& operator=(const ovScopedResource&) = delete;

    R get() const { return resource_; }

private:
    R resource_;
    release_fn release_;
};

#endif
