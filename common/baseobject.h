#pragma once

#include <windows.h>

namespace MediaFoundationSamples {

/// How many objects and server locks keep the module loaded. Changed atomically.
class LiveObjects {
 public:
  static void Add() { InterlockedIncrement(&s_count); }
  static void Remove() { InterlockedDecrement(&s_count); }
  static LONG Count() { return InterlockedCompareExchange(&s_count, 0, 0); }

 private:
  inline static LONG s_count = 0;
};

/// Counts as a living object of the module. Base of the objects that a client may still hold when it has
/// released all others: the transform, its facade and its settings store.
class BaseObject {
 public:
  BaseObject(const BaseObject&) = delete;
  BaseObject& operator=(const BaseObject&) = delete;

 protected:
  BaseObject() { LiveObjects::Add(); }
  ~BaseObject() { LiveObjects::Remove(); }
};

}  // namespace MediaFoundationSamples
