/* SPDX-License-Identifier: Apache-2.0 */
/* Payloads: bytes of a message, and values that are copied out of them and into them. */
#ifndef QOR_MESSAGE_HPP
#define QOR_MESSAGE_HPP

#include <cstring>
#include <memory>
#include <new>
#include <type_traits>

#include "config.hpp"
#include "qor_context_msg.h"

QOR_BEGIN_NAMESPACE

/**
 * A view of bytes that somebody else owns. What a handler gets is valid while the handler runs.
 *
 * A contiguous range: where there is a std::span, one of the same bytes is made of it as of any
 * other.
 */
template <typename Byte> class basic_bytes {
public:
    using value_type = std::remove_cv_t<Byte>; /**< of one byte, which may be written */
    using iterator = Byte *;                   /**< a plain pointer */

    /** No bytes. */
    constexpr basic_bytes() = default;

    /** The size bytes at data. */
    constexpr basic_bytes(Byte *data, std::size_t size) : data_(data), size_(size) {}

    /** Bytes that may be written are bytes that may be read. */
    template <typename Other, typename = std::enable_if_t<std::is_convertible_v<Other *, Byte *>>>
    constexpr basic_bytes(const basic_bytes<Other> &other) // NOLINT: as a pointer is
        : data_(other.data()), size_(other.size())
    {
    }

    /**
     * @name As of any contiguous range
     * @{
     */

    /** The first byte. */
    constexpr Byte *data() const { return data_; }

    /** How many there are. */
    constexpr std::size_t size() const { return size_; }

    /** Whether there are none. */
    constexpr bool empty() const { return size_ == 0; }

    /** The first byte. */
    constexpr Byte *begin() const { return data_; }

    /** Behind the last byte. */
    constexpr Byte *end() const { return data_ + size_; }

    /** The byte at a place, which is less than size(). */
    constexpr Byte &operator[](std::size_t place) const { return data_[place]; }

    /** @} */

    /** The bytes from a place on, which is at most size(). */
    constexpr basic_bytes from(std::size_t place) const { return {data_ + place, size_ - place}; }

private:
    Byte *data_ = nullptr;
    std::size_t size_ = 0;
};

/** Bytes to be read. */
using bytes = basic_bytes<const std::byte>;

/** Bytes to be written. */
using mutable_bytes = basic_bytes<std::byte>;

/** The bytes of a text, without a final zero, or of any memory. */
inline bytes bytes_of(const void *data, std::size_t size)
{
    return {static_cast<const std::byte *>(data), size};
}

/**
 * A payload of a header and a tail of bytes.
 *
 * As a request its tail has any number of bytes, as the sender chose. As a response it has Room
 * bytes, all of which the asker gets: how many of them mean something is for the header to say.
 */
template <typename Header, std::size_t Room = 0> struct tailed {
    Header header{}; /**< a copy */
    bytes tail;      /**< somebody else's bytes, behind the header */
};

/** A response of that kind as the handler fills it. */
template <typename Header> struct tailed_reply {
    Header header{};    /**< sent when the handler has returned */
    mutable_bytes tail; /**< the message's own room, zeroed */
};

/** Nothing, where a payload is void. */
struct nothing {};

namespace detail {

/** Whether values are bytes and nothing else: nobody constructs or destroys them on the way. */
template <typename T> constexpr void check_payload()
{
    static_assert(std::is_trivially_copyable_v<T>, "a payload is copied as bytes");
    static_assert(std::is_default_constructible_v<T>, "a payload is made before it is copied");
}

/** What a payload type means: a value. */
template <typename T> struct payload {
    using value = T;     /**< as it is read */
    using filled = T;    /**< as a handler fills it */
    using described = T; /**< what tells it from others on its topic */
    static constexpr bool none = false;
    static constexpr bool plain = true; /**< its bytes are those of the value */
    static constexpr std::size_t least = sizeof(T);
    static constexpr std::size_t room = sizeof(T); /**< as a response */

    static bool fits(const qor_context_request_t &part)
    {
        return part.size == static_cast<int32_t>(sizeof(T)) && part.buf;
    }

    static value read(bytes from)
    {
        check_payload<T>();
        value read{};
        std::memcpy(&read, from.data(), sizeof(T));
        return read;
    }

    static filled fresh(mutable_bytes) { return {}; }
    static void write(const filled &from, mutable_bytes to)
    {
        std::memcpy(to.data(), &from, sizeof(T));
    }
};

/** Nothing. */
template <> struct payload<void> {
    using value = nothing;
    using filled = nothing;
    using described = void;
    static constexpr bool none = true;
    static constexpr bool plain = true;
    static constexpr std::size_t least = 0;
    static constexpr std::size_t room = 0;

    static bool fits(const qor_context_request_t &part) { return part.size == 0 || !part.buf; }
    static value read(bytes) { return {}; }
    static filled fresh(mutable_bytes) { return {}; }
    static void write(const filled &, mutable_bytes) {}
};

/** Bytes of any number; of requests only. */
template <> struct payload<bytes> {
    using value = bytes;
    using described = std::byte;
    static constexpr bool none = false;
    static constexpr bool plain = false;
    static constexpr std::size_t least = 0;

    static bool fits(const qor_context_request_t &part) { return part.size >= 0; }
    static value read(bytes from) { return from; }
    static std::size_t size(const value &from) { return from.size(); }
    static void gather(const value &from, mutable_bytes to)
    {
        if (!from.empty()) {
            std::memcpy(to.data(), from.data(), from.size());
        }
    }
};

/** A header with a tail. */
template <typename Header, std::size_t Room> struct payload<tailed<Header, Room>> {
    using value = tailed<Header, Room>;
    using filled = tailed_reply<Header>;
    using described = Header;
    static constexpr bool none = false;
    static constexpr bool plain = false;
    static constexpr std::size_t least = sizeof(Header);
    static constexpr std::size_t room = sizeof(Header) + Room;

    static bool fits(const qor_context_request_t &part)
    {
        return part.size >= static_cast<int32_t>(sizeof(Header)) && part.buf;
    }

    static value read(bytes from)
    {
        return {payload<Header>::read(from), from.from(sizeof(Header))};
    }
    static std::size_t size(const value &from) { return sizeof(Header) + from.tail.size(); }
    static void gather(const value &from, mutable_bytes to)
    {
        payload<Header>::write(from.header, to);
        payload<bytes>::gather(from.tail, to.from(sizeof(Header)));
    }

    static filled fresh(mutable_bytes to)
    {
        return {{}, to.empty() ? to : to.from(sizeof(Header))};
    }
    static void write(const filled &from, mutable_bytes to)
    {
        payload<Header>::write(from.header, to);
    }
};

/** The two parts of a message. */
inline mutable_bytes request_bytes(const qor_context_msg_t &msg)
{
    const bool any = msg.request.buf && msg.request.size > 0;
    return {static_cast<std::byte *>(any ? msg.request.buf : nullptr),
            any ? static_cast<std::size_t>(msg.request.size) : 0};
}

inline mutable_bytes response_bytes(const qor_context_msg_t &msg)
{
    const bool any = msg.response.buf && msg.response.size > 0;
    return {static_cast<std::byte *>(any ? msg.response.buf : nullptr),
            any ? static_cast<std::size_t>(msg.response.size) : 0};
}

/**
 * A request payload in one piece, for the length of a call. A value is its own; what has a tail is
 * put together, on the heap when it is long.
 */
template <typename T, bool plain = payload<T>::plain> class outgoing {
public:
    explicit outgoing(const typename payload<T>::value &value) : value_(&value)
    {
        if constexpr (!payload<T>::none) {
            check_payload<T>();
        }
    }

    bool there() const { return true; }
    void *data() const { return payload<T>::none ? nullptr : const_cast<void *>(at()); }
    int32_t size() const { return static_cast<int32_t>(payload<T>::least); }

private:
    const void *at() const { return value_; }

    const typename payload<T>::value *value_;
};

template <typename T> class outgoing<T, false> {
public:
    explicit outgoing(const typename payload<T>::value &value) : size_(payload<T>::size(value))
    {
        if (size_ > sizeof(near_)) {
            far_.reset(size_ <= INT32_MAX ? new (std::nothrow) std::byte[size_] : nullptr);
        }
        if (there()) {
            payload<T>::gather(value, {at(), size_});
        }
    }

    /** Whether there was memory for it. */
    bool there() const { return size_ <= sizeof(near_) || far_; }
    void *data() { return at(); }
    int32_t size() const { return static_cast<int32_t>(size_); }

private:
    std::byte *at() { return far_ ? far_.get() : near_; }

    std::size_t size_;
    std::unique_ptr<std::byte[]> far_;
    std::byte near_[256];
};

} // namespace detail

QOR_END_NAMESPACE

#endif /* QOR_MESSAGE_HPP */
