#pragma once

#include <memory>

namespace tarnbloom {

// A stateless deleter for C handles: std::unique_ptr<TIFF, CDeleter<TIFFClose>>.
template <auto Fn>
struct CDeleter {
  template <typename T>
  void operator()(T* p) const {
    if (p) Fn(p);
  }
};

template <typename T, auto Fn>
using CHandle = std::unique_ptr<T, CDeleter<Fn>>;

}  // namespace tarnbloom
