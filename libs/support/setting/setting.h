#pragma once

#include <QString>
#include <QTextStream>
#include <atomic>
#include <functional>
#include <type_traits>
#include <utility>

#include "orvan/support/export.h"
#include "orvan/support/memory/containers.h"
#include "orvan/support/thread/lock.h"

namespace orvan {

class Setting;

// A named set of settings.
//
// A setting may be constructed before the group that it names, as statics in different files do: a
// process-wide registry brings both together, whichever comes first, and whichever goes first.
//
// Threads: look-ups on any thread; making and destroying groups and settings belongs to start and end.
class ORVAN_SUPPORT_EXPORT SettingGroup {
 public:
  explicit SettingGroup(const QString& name);
  SettingGroup(const SettingGroup&) = delete;
  SettingGroup& operator=(const SettingGroup&) = delete;
  virtual ~SettingGroup();

  virtual QString GetName() const;
  virtual int GetSettingCount() const;
  // In the order of construction; null if `index` is out of range.
  virtual Setting* GetSetting(int index) const;
  // Null if there is none of this name.
  virtual Setting* GetSetting(const QString& name) const;
  virtual void ResetToDefault();
  // A setting of this group is going away.
  virtual void OnPreDelete(Setting* setting);

  // All groups that exist, for persistence.
  static mmvector<SettingGroup*> GetGroups();

 private:
  const QString name_;
};

// One setting: a name, a value as text, observers.
//
// Threads: values are read on any thread without a lock. Writing, and observers, belong to the main thread.
class ORVAN_SUPPORT_EXPORT Setting {
 public:
  using Behavior = int;
  static constexpr Behavior kDefaultBehavior = 0;
  static constexpr Behavior kStatisticsBehavior = 2;

  using Observer = std::function<void(Setting&)>;

  // Uses no more of `group` than its address: the group may not have been constructed yet.
  Setting(SettingGroup& group, const QString& name, Behavior behavior);
  Setting(const Setting&) = delete;
  Setting& operator=(const Setting&) = delete;
  virtual ~Setting();

  // False, and nothing has changed, for a text that is no value of this type.
  virtual bool fromString(const QString& text) = 0;
  virtual QString toString() const = 0;
  virtual bool IsDefault() const = 0;
  // A number for the type of the value.
  virtual int getType() const = 0;
  // Keep the value on a stack, and go back to the one that was kept last: false if there is none.
  virtual void PushSetting() = 0;
  virtual bool PopSetting() = 0;
  virtual void ResetToDefault() = 0;

  const QString& name() const { return name_; }
  Behavior behavior() const { return behavior_; }
  // Who wrote the value last: the token that was current then.
  const QString& modifier() const { return modifier_; }

  // Calls `observer` after each change of value. The returned number takes it away again.
  int AddObserver(Observer observer);
  void RemoveObserver(int number);
  // Called when the setting is about to go.
  void SetPreDeleteObserver(Observer observer);

  // Tells the observers of a change of value.
  void NotifyChanged();

  // Token of who is changing settings at the moment; each write copies it into the setting first.
  static QString s_current_modifier;

 protected:
  // Tells observers and group that the setting ends; every subclass destructor calls it.
  void NotifyPreDelete();
  void CopyModifier() { modifier_ = s_current_modifier; }

 private:
  friend class SettingGroup;
  SettingGroup* const group_address_;
  const QString name_;
  const Behavior behavior_;
  QString modifier_;
  mmvector<std::pair<int, Observer>> observers_;
  Observer pre_delete_observer_;
  int next_observer_ = 1;
  bool pre_delete_done_ = false;
};

// The value of a setting, which any thread may read while the main thread writes it.
template <typename T>
class SettingValue {
 public:
  explicit SettingValue(const T& value) : value_(value) {}
  T Load() const { return value_.load(std::memory_order_relaxed); }
  void Store(const T& value) { value_.store(value, std::memory_order_relaxed); }

 private:
  std::atomic<T> value_;
};
// A std::pair is not trivially copyable, as a std::atomic wants it.
template <>
class SettingValue<std::pair<int, int>> {
 public:
  explicit SettingValue(const std::pair<int, int>& value) : value_(Halves{value.first, value.second}) {}
  std::pair<int, int> Load() const {
    const Halves halves = value_.load(std::memory_order_relaxed);
    return {halves.first, halves.second};
  }
  void Store(const std::pair<int, int>& value) {
    value_.store(Halves{value.first, value.second}, std::memory_order_relaxed);
  }

 private:
  struct alignas(8) Halves {
    int first;
    int second;
  };
  std::atomic<Halves> value_;
};

// Number of each value type, as Setting::getType() answers it.
template <typename T>
struct SettingType;
// Whole numbers.
template <>
struct SettingType<int> {
  static constexpr int kValue = 1;
};
// Pairs of them.
template <>
struct SettingType<std::pair<int, int>> {
  static constexpr int kValue = 7;
};

ORVAN_SUPPORT_EXPORT QTextStream& operator<<(QTextStream& stream, const std::pair<int, int>& value);
ORVAN_SUPPORT_EXPORT QTextStream& operator>>(QTextStream& stream, std::pair<int, int>& value);

// A setting with a value of type T and a stack of earlier values.
//
// Threads: value() is atomic and relaxed: a change takes effect at some next use, and orders nothing.
template <typename T>
class TypedSetting : public Setting {
 public:
  TypedSetting(SettingGroup& group, const QString& name, const T& default_value, Behavior behavior = 0)
      : Setting(group, name, behavior), value_(default_value), default_(default_value) {}
  ~TypedSetting() override { NotifyPreDelete(); }

  T value() const { return value_.Load(); }
  const T& default_value() const { return default_; }
  operator T() const { return value(); }
  TypedSetting& operator=(const T& value) {
    SetValue(value);
    return *this;
  }
  // Not a slip: the modifier is copied even if the value stays, so it names the last writer, not the last
  // changer. Observers hear of changes only.
  void SetValue(const T& value) {
    CopyModifier();
    if (this->value() == value) return;
    value_.Store(value);
    NotifyChanged();
  }

  bool fromString(const QString& text) override {
    QString copy = text;
    QTextStream stream(&copy, QIODevice::ReadOnly);
    T value{};
    stream >> value;
    if (stream.status() != QTextStream::Ok) return false;
    SetValue(value);
    return true;
  }
  QString toString() const override {
    QString text;
    QTextStream stream(&text);
    stream << value();
    stream.flush();
    return text;
  }
  bool IsDefault() const override { return value() == default_; }
  int getType() const override { return SettingType<T>::kValue; }
  void PushSetting() override { stack_.push_back(value()); }
  // Not a slip: restoring a value tells the observers even if it is the value that stands.
  bool PopSetting() override {
    if (stack_.empty()) return false;
    value_.Store(stack_.back());
    stack_.pop_back();
    NotifyChanged();
    return true;
  }
  void ResetToDefault() override { SetValue(default_); }

 private:
  SettingValue<T> value_;
  const T default_;
  mmlist<T> stack_;
};

using IntSetting = TypedSetting<int>;
using IntPairSetting = TypedSetting<std::pair<int, int>>;

// A number that counts things.
class ORVAN_SUPPORT_EXPORT CountSetting : public TypedSetting<int> {
 public:
  CountSetting(SettingGroup& group, const QString& name, int default_value = 0)
      : TypedSetting<int>(group, name, default_value, kStatisticsBehavior) {}
  CountSetting& operator=(int value) {
    SetValue(value);
    return *this;
  }
  void Increment() { SetValue(value() + 1); }
};

// How often each of a few error codes occurred. At most `size` codes are kept: a new one beyond that takes
// the place of the rarest, the oldest of them among equals. As text: "code:count" pairs separated by blanks.
class ORVAN_SUPPORT_EXPORT MapAndLog : public Setting {
 public:
  MapAndLog(const QString& name, int size, SettingGroup& group, Behavior behavior);
  ~MapAndLog() override;

  // Adds one to the count of `code`.
  void Log(int code);
  int GetCount(int code) const;
  int GetCodeCount() const;

  bool fromString(const QString& text) override;
  QString toString() const override;
  bool IsDefault() const override;
  int getType() const override;
  void PushSetting() override;
  bool PopSetting() override;
  void ResetToDefault() override;

 private:
  struct Entry {
    int code;
    int count;
    bool operator==(const Entry& other) const { return code == other.code && count == other.count; }
  };
  using Entries = mmvector<Entry>;  // the code that came first stands first
  void Add(const Entry& added, Entries* entries) const;
  void Assign(Entries entries);

  const int size_;
  mutable SpinLock lock_;  // a leaf: observers are told behind it
  Entries entries_ ORVAN_GUARDED_BY(lock_);
  mmlist<Entries> stack_ ORVAN_GUARDED_BY(lock_);
};

}  // namespace orvan
