#pragma once

#include <windows.h>

namespace MediaFoundationSamples {

/// The number of objects and server locks that keep the module loaded. Any thread may call.
class LiveObjects {
 public:
  static void Add() { InterlockedIncrement(&s_count); }
  static void Remove() { InterlockedDecrement(&s_count); }
  static LONG Count() { return InterlockedCompareExchange(&s_count, 0, 0); }

 private:
  inline static LONG s_count = 0;
};

/// Base of the objects that keep the module loaded. A client may hold any of them alone: the transform, its
/// facade, or its settings store.
class BaseObject {
 public:
  BaseObject(const BaseObject&) = delete;
  BaseObject& operator=(const BaseObject&) = delete;

 protected:
  BaseObject() { LiveObjects::Add(); }
  ~BaseObject() { LiveObjects::Remove(); }
};

}  // namespace MediaFoundationSamples
