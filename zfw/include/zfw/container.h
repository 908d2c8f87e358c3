// Containers shared between threads: a container, a map interface over it, and a wrapper
// that adds the lock every user of the shared container takes.
//
//   zfw::Wrapper::Check<zfw::Wrapper::Locked, zfw::Map<K, V>> registry;
//   zfw::MutexLock lock(registry.mutex());
//   registry.insert(key, value);
#ifndef ZFW_CONTAINER_H
#define ZFW_CONTAINER_H

#include <cstddef>
#include <map>

#include "zfw/mutex.h"

namespace zfw {

// Holds the container.
template <typename C>
class Container {
  public:
    typedef C container_type;

    Container() = default;
    virtual ~Container() = default;
    Container(const Container&) = delete;
    Container& operator=(const Container&) = delete;

  protected:
    C m_container;
};

// An ordered map; the caller provides any locking.
template <typename K, typename V>
class Map : public Container<std::map<K, V>> {
  public:
    typedef typename std::map<K, V>::iterator iterator;

    iterator find(const K& key) { return this->m_container.find(key); }
    iterator end() { return this->m_container.end(); }
    // False (and the map unchanged) when the key is present.
    bool insert(const K& key, const V& value) {
        return this->m_container.emplace(key, value).second;
    }
    void erase(iterator it) { this->m_container.erase(it); }
    size_t size() const { return this->m_container.size(); }
};

namespace Wrapper {

// Policy: every access to the wrapped container happens under the wrapper's mutex.
struct Locked {};

template <typename Policy, typename Base>
class Check;

template <typename Base>
class Check<Locked, Base> : public Base {
  public:
    Check() = default;
    ~Check() override { delete m_mutex; }

    // The container's lock, created on first use.
    Mutex& mutex() { return lazyMutex(m_mutex); }

  private:
    Mutex* m_mutex = nullptr;
};

}  // namespace Wrapper
}  // namespace zfw

#endif
