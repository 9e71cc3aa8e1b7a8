#pragma once
// Typed extraction from KRValue. Every function takes the caller's name and the value's name
// and throws KR::KRError(caller, function, text naming the value and its kind) when the value
// is of the wrong kind. An int is accepted wherever a float is wanted.

#include <chrono>
#include <map>
#include <string>
#include <vector>

#include <kr/math/types.h>
#include <kr/value/krvalue.h>

namespace KR {

/// Throws unless v is an array.
void checkArrayFromKRValue(const KRValue& v, const std::string& caller, const std::string& name);

/// A float (or int) value.
float extractFloat(const KRValue& v, const std::string& caller, const std::string& name);

/// A float (or int) value clamped into [min, max].
float extractFloatAndClip(const KRValue& v, float min, float max, const std::string& caller,
                          const std::string& name);

/// An int value (a float is refused).
int extractIntFromKRValue(const KRValue& v, const std::string& caller, const std::string& name);

/// An array of floats (or ints).
std::vector<float> extractVectorFloatsFromKRValue(const KRValue& v, const std::string& caller,
                                                  const std::string& name);
/// The same into a caller-owned vector (reuses its capacity).
void extractVectorFloatsFromKRValue(const KRValue& v, std::vector<float>& out,
                                    const std::string& caller, const std::string& name);

/// An array of exactly six numbers x, y, z, wx, wy, wz.
Math::Position6D extractPosition6DFromKRValue(const KRValue& v, const std::string& caller,
                                              const std::string& name);

/// A duration given as whole seconds and microseconds, each an int KRValue.
std::chrono::nanoseconds extractDuration(const KRValue& seconds, const KRValue& microseconds,
                                         const std::string& caller, const std::string& name);
/// A duration given as an array [seconds, microseconds] of ints.
std::chrono::nanoseconds extractDuration(const KRValue& v, const std::string& caller,
                                         const std::string& name);

/// [seconds, microseconds] as two ints: whole seconds and the remaining microseconds
/// (both carry the sign of a negative duration).
KRValue convertDurationToKRValue(std::chrono::nanoseconds d);

/// Name/value pairs, given as an array of [name (string), value] arrays.
/// A later duplicate name replaces the earlier value.
std::map<std::string, KRValue> extractKeyValueMapFromKRValue(const KRValue& v,
                                                             const std::string& caller);

}  // namespace KR
