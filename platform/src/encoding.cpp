#include <kr/value/encoding.h>

#include <cstring>
#include <limits>
#include <string>

#define MSGPACK_NO_BOOST
#include <msgpack.hpp>

#include <kr/error.h>

namespace KR {

namespace {

constexpr std::size_t kMaxDepth = 64;

/// Writes straight into a byte vector, so that no intermediate buffer is copied.
struct VectorSink {
  std::vector<std::uint8_t>* out;
  void write(const char* data, std::size_t size) {
    out->insert(out->end(), reinterpret_cast<const std::uint8_t*>(data),
                reinterpret_cast<const std::uint8_t*>(data) + size);
  }
};

void pack(msgpack::packer<VectorSink>& pk, VectorSink& sink, const KRValue& v) {
  switch (v.type()) {
    case KRValue::Type::Invalid:
      pk.pack_nil();
      break;
    case KRValue::Type::Bool:
      if (*v.getIf<bool>()) {
        pk.pack_true();
      } else {
        pk.pack_false();
      }
      break;
    case KRValue::Type::Int:
      pk.pack_int(*v.getIf<int>());
      break;
    case KRValue::Type::Float: {
      // Always a float32: the packer's pack_float writes whole numbers as integers (and -0 as
      // 0), which would change the value's kind on the other side.
      std::uint32_t bits;
      const float f = *v.getIf<float>();
      std::memcpy(&bits, &f, sizeof bits);
      const char bytes[5] = {static_cast<char>(0xCA), static_cast<char>(bits >> 24),
                             static_cast<char>(bits >> 16), static_cast<char>(bits >> 8),
                             static_cast<char>(bits)};
      sink.write(bytes, sizeof bytes);
      break;
    }
    case KRValue::Type::String: {
      const std::string& s = *v.getIf<std::string>();
      pk.pack_str(static_cast<std::uint32_t>(s.size()));
      pk.pack_str_body(s.data(), static_cast<std::uint32_t>(s.size()));
      break;
    }
    case KRValue::Type::Array: {
      const KRValue::Array& a = *v.getIf<KRValue::Array>();
      pk.pack_array(static_cast<std::uint32_t>(a.size()));
      for (const KRValue& item : a)
        pack(pk, sink, item);
      break;
    }
  }
}

[[noreturn]] void malformed(const std::string& why) {
  throw KRError("KRValue", "decode", why);
}

KRValue unpack(const msgpack::object& o, std::size_t depth) {
  if (depth > kMaxDepth)
    malformed("nesting deeper than " + std::to_string(kMaxDepth) + " levels");
  switch (o.type) {
    case msgpack::type::NIL:
      return KRValue();
    case msgpack::type::BOOLEAN:
      return KRValue(o.via.boolean);
    case msgpack::type::POSITIVE_INTEGER:
      if (o.via.u64 > static_cast<std::uint64_t>(std::numeric_limits<int>::max()))
        malformed("integer " + std::to_string(o.via.u64) + " out of range");
      return KRValue(static_cast<int>(o.via.u64));
    case msgpack::type::NEGATIVE_INTEGER:
      if (o.via.i64 < std::numeric_limits<int>::min())
        malformed("integer " + std::to_string(o.via.i64) + " out of range");
      return KRValue(static_cast<int>(o.via.i64));
    case msgpack::type::FLOAT32:
    case msgpack::type::FLOAT64:
      return KRValue(static_cast<float>(o.via.f64));
    case msgpack::type::STR:
      return KRValue(std::string(o.via.str.ptr, o.via.str.size));
    case msgpack::type::ARRAY: {
      KRValue::Array items;
      items.reserve(o.via.array.size);
      for (std::uint32_t i = 0; i < o.via.array.size; ++i)
        items.push_back(unpack(o.via.array.ptr[i], depth + 1));
      return KRValue(std::move(items));
    }
    default:
      malformed("unsupported MessagePack type " + std::to_string(static_cast<int>(o.type)));
  }
}

}  // namespace

void encodeKRValue(const KRValue& value, std::vector<std::uint8_t>& out) {
  VectorSink sink{&out};
  msgpack::packer<VectorSink> pk(sink);
  pack(pk, sink, value);
}

std::vector<std::uint8_t> encodeKRValue(const KRValue& value) {
  std::vector<std::uint8_t> out;
  encodeKRValue(value, out);
  return out;
}

KRValue decodeKRValue(const std::uint8_t* data, std::size_t size) {
  if (size == 0)
    malformed("empty buffer");
  msgpack::object_handle handle;
  std::size_t offset = 0;
  try {
    // The limits bound what a hostile buffer can make the unpacker allocate and recurse into.
    const msgpack::unpack_limit limits(size, 0, size, 0, 0, kMaxDepth + 1);
    handle = msgpack::unpack(reinterpret_cast<const char*>(data), size, offset, nullptr, nullptr,
                             limits);
  } catch (const std::exception& e) {
    malformed(std::string("malformed buffer: ") + e.what());
  }
  if (offset != size)
    malformed(std::to_string(size - offset) + " trailing byte(s)");
  return unpack(handle.get(), 0);
}

}  // namespace KR
