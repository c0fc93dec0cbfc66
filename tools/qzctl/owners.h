// SPDX-License-Identifier: MIT
// Owners of what has to be given back. The standard ones need the C++ library.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <qzlib.h>
#include <unistd.h>

namespace qzctl
{

template <typename Type, auto RELEASE>
class Owned
{
public:
    explicit Owned(Type *object = nullptr) : object_(object) {}
    Owned(Owned &&other) noexcept : object_(other.release()) {}
    Owned &operator=(Owned &&) = delete;
    ~Owned() { reset(); }

    [[nodiscard]] Type *get() const { return object_; }
    explicit operator bool() const { return object_ != nullptr; }
    Type *release()
    {
        Type *object = object_;
        object_ = nullptr;
        return object;
    }
    void reset(Type *object = nullptr)
    {
        if (object_ != nullptr)
            RELEASE(object_);
        object_ = object;
    }

private:
    Type *object_;
};

inline void close_stream(FILE *stream)
{
    (void)fclose(stream);
}

inline void release_store(service_info *store)
{
    (void)qzlib_service_info_uninit(store);
}

using Json = Owned<cJSON, cJSON_Delete>;
using Memory = Owned<char, free>;
using Store = Owned<service_info, release_store>;
using Stream = Owned<FILE, close_stream>;

class Fd
{
public:
    explicit Fd(int fd = -1) : fd_(fd) {}
    Fd(Fd &&other) noexcept : fd_(other.release()) {}
    Fd &operator=(Fd &&) = delete;
    ~Fd() { reset(); }

    [[nodiscard]] int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    int release()
    {
        const int fd = fd_;
        fd_ = -1;
        return fd;
    }
    void reset(int fd = -1)
    {
        if (fd_ >= 0)
            close(fd_);
        fd_ = fd;
    }

private:
    int fd_;
};

} // namespace qzctl
