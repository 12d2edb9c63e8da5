#pragma once
// Pull-style sequences shared through std::shared_ptr: a sequencer that can be
// appended to and enumerated, enumerators over standard containers, and lazy
// filtering and transforming adapters. An enumerator starts on its first
// element; the consuming loop is: while !IsEnd(): use Current(), MoveNext().

#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

namespace AuditArchive {

template <typename T>
class IEnumerator {
 public:
  virtual bool IsEnd() = 0;
  virtual T Current() = 0;
  virtual void MoveNext() = 0;
  virtual ~IEnumerator() = default;
};

class ICommittable {
 public:
  virtual void Commit() = 0;
  virtual ~ICommittable() = default;
};

template <typename T>
class ICommittableEnumerator : public IEnumerator<T>, public ICommittable {};

template <typename T>
class IEnumerable {
 public:
  virtual std::shared_ptr<IEnumerator<T>> GetEnumerator() = 0;
  virtual ~IEnumerable() = default;
};

template <typename T>
class ISequencer {
 public:
  virtual void Add(const T& value) = 0;
  virtual ~ISequencer() = default;
};

template <typename T>
class IEnumerableSequencer : public ISequencer<T>, public IEnumerable<T> {};

namespace Detail {

// Always at its end; Current() gives a default value rather than failing, so
// a consumer that reads once too often gets something harmless.
template <typename T>
class EmptyEnumerator final : public ICommittableEnumerator<T> {
 public:
  bool IsEnd() override { return true; }
  T Current() override { return m_value; }
  void MoveNext() override {}
  void Commit() override {}

 private:
  T m_value{};
};

template <typename T>
class EnumerableSequencer final : public IEnumerableSequencer<T> {
 public:
  using Storage = std::deque<T>;

  // Reads the element count at every IsEnd(), so elements added while the
  // enumerator is open are reached as well.
  class StdEnumerator final : public IEnumerator<T> {
   public:
    explicit StdEnumerator(std::shared_ptr<Storage> storage) noexcept : m_pStorage(std::move(storage)) {}
    bool IsEnd() override { return m_nIndex == m_pStorage->size(); }
    T Current() override { return (*m_pStorage)[m_nIndex]; }
    void MoveNext() override {
      if (!IsEnd()) ++m_nIndex;
    }

   private:
    std::shared_ptr<Storage> m_pStorage;
    std::size_t m_nIndex = 0;
  };

  void Add(const T& value) override { (this->*m_pAdd)(value); }

  std::shared_ptr<IEnumerator<T>> GetEnumerator() override {
    if (!m_pStorage) return std::make_shared<EmptyEnumerator<T>>();
    return std::make_shared<StdEnumerator>(m_pStorage);
  }

  // For tests and diagnostics: a sequencer that never received an element
  // holds no storage at all.
  bool HasStorage() const noexcept { return m_pStorage != nullptr; }

 private:
  // The storage is made on the first Add, so the many lists that stay empty
  // (a group without services, a cycle without samples) cost no allocation.
  void FirstAdd(const T& value) {
    m_pStorage = std::make_shared<Storage>();
    m_pAdd = &EnumerableSequencer::Append;
    Append(value);
  }
  void Append(const T& value) { m_pStorage->push_back(value); }

  std::shared_ptr<Storage> m_pStorage;
  void (EnumerableSequencer::*m_pAdd)(const T&) = &EnumerableSequencer::FirstAdd;
};

template <typename C>
class StdEnumerable final : public IEnumerable<typename C::value_type> {
 public:
  using value_type = typename C::value_type;

  class StdEnumerator final : public IEnumerator<value_type> {
   public:
    explicit StdEnumerator(std::shared_ptr<C> container)
        : m_pContainer(std::move(container)), m_it(m_pContainer->begin()) {}
    bool IsEnd() override { return m_it == m_pContainer->end(); }
    value_type Current() override { return *m_it; }
    void MoveNext() override {
      if (!IsEnd()) ++m_it;
    }

   private:
    std::shared_ptr<C> m_pContainer;
    typename C::iterator m_it;
  };

  explicit StdEnumerable(std::shared_ptr<C> container) noexcept : m_pContainer(std::move(container)) {}

  std::shared_ptr<IEnumerator<value_type>> GetEnumerator() override {
    return std::make_shared<StdEnumerator>(m_pContainer);
  }

 private:
  std::shared_ptr<C> m_pContainer;
};

// Reads and tests each source element once: the element that passed is kept
// in the cache, so Current() does not go back to the source.
template <typename T>
class FilteringEnumerator final : public IEnumerator<T> {
 public:
  FilteringEnumerator(std::shared_ptr<IEnumerator<T>> source, std::function<bool(const T&)> predicate)
      : m_pSource(std::move(source)), m_predicate(std::move(predicate)) {
    Skip();
  }

  bool IsEnd() override { return m_pSource->IsEnd(); }
  T Current() override {
    if (!m_cached) m_cached.emplace(m_pSource->Current());
    return *m_cached;
  }
  void MoveNext() override {
    m_cached.reset();
    m_pSource->MoveNext();
    Skip();
  }

 private:
  void Skip() {
    while (!m_pSource->IsEnd()) {
      m_cached.emplace(m_pSource->Current());
      if (m_predicate(*m_cached)) return;
      m_cached.reset();
      m_pSource->MoveNext();
    }
  }

  std::shared_ptr<IEnumerator<T>> m_pSource;
  std::function<bool(const T&)> m_predicate;
  std::optional<T> m_cached;
};

// Runs the transformation once per element however often Current() is asked;
// the watcher's transformation queries a disk.
template <typename T, typename U>
class TransformingEnumerator final : public IEnumerator<T> {
 public:
  TransformingEnumerator(std::shared_ptr<IEnumerator<U>> source, std::function<T(const U&)> transformation)
      : m_pSource(std::move(source)), m_transformation(std::move(transformation)) {}

  bool IsEnd() override { return m_pSource->IsEnd(); }
  T Current() override {
    if (!m_cached) m_cached.emplace(m_transformation(m_pSource->Current()));
    return *m_cached;
  }
  void MoveNext() override {
    m_cached.reset();
    m_pSource->MoveNext();
  }

 private:
  std::shared_ptr<IEnumerator<U>> m_pSource;
  std::function<T(const U&)> m_transformation;
  std::optional<T> m_cached;
};

}  // namespace Detail

template <typename T>
std::shared_ptr<IEnumerableSequencer<T>> MakeEnumerableSequencer() {
  return std::make_shared<Detail::EnumerableSequencer<T>>();
}

// A one-element enumerable, for lists that by construction hold one value.
template <typename F>
std::shared_ptr<IEnumerable<F>> MakeSingleEnumerable(F value) {
  auto container = std::make_shared<std::vector<F>>();
  container->push_back(std::move(value));
  return std::make_shared<Detail::StdEnumerable<std::vector<F>>>(std::move(container));
}

template <typename T>
std::shared_ptr<IEnumerator<T>> Filter(std::shared_ptr<IEnumerator<T>> source,
                                       std::function<bool(const T&)> predicate) {
  return std::make_shared<Detail::FilteringEnumerator<T>>(std::move(source), std::move(predicate));
}

template <typename T, typename U>
std::shared_ptr<IEnumerator<T>> Transform(std::shared_ptr<IEnumerator<U>> source,
                                          std::function<T(const U&)> transformation) {
  return std::make_shared<Detail::TransformingEnumerator<T, U>>(std::move(source), std::move(transformation));
}

template <typename T, typename Action>
void ForEach(const std::shared_ptr<IEnumerator<T>>& enumerator, Action&& action) {
  while (!enumerator->IsEnd()) {
    action(enumerator->Current());
    enumerator->MoveNext();
  }
}

// Materialises a (lazy) enumerator, so later passes read stored values.
template <typename T>
std::shared_ptr<IEnumerable<T>> CopyAll(const std::shared_ptr<IEnumerator<T>>& source) {
  auto copy = MakeEnumerableSequencer<T>();
  ForEach(source, [&](const T& value) { copy->Add(value); });
  return copy;
}

}  // namespace AuditArchive
