// A value that is made from settings and made anew when they have changed, while others read it.
//
//   struct Config {
//     explicit Config(VarnSettings& settings) : limit(settings.number("limit", 3, {1, 100})) {}
//     int limit;
//   };
//   VarnReloaded<Config> config("/etc/greeter.conf", options.values(), "GREETER");
//   const std::shared_ptr<const Config> now = config.get();  // valid as long as `now` lives
//   config.reload();  // on SIGHUP: throws, and keeps the old one, when the file has faults
//
// `options` is a VarnOptionTable, or a VarnProgramOptions with getOptions().
//
// All operations are safe from any thread and in the child of a fork. T's constructor runs on the
// thread that reloads, its destructor on the one that gives up a value last, neither under a lock.
#ifndef VARNSUPPORT_VARNRELOADED_H
#define VARNSUPPORT_VARNRELOADED_H

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>

#include "VarnSupport/VarnCollaborator.h"
#include "VarnSupport/VarnExport.h"
#include "VarnSupport/VarnSettings.h"

namespace VarnSupport {

// The newest of several values, with the settings that it was made from. Of use to VarnReloaded.
class VSUPT_EXPORT VarnReloadedSlot {
 public:
  explicit VarnReloadedSlot(std::shared_ptr<const VarnSettings::Sources> sources)
      : m_pSources(std::move(sources)) {}
  VarnReloadedSlot(const VarnReloadedSlot&) = delete;
  VarnReloadedSlot& operator=(const VarnReloadedSlot&) = delete;

  const std::shared_ptr<const VarnSettings::Sources>& sources() const { return m_pSources; }
  // Null before the first one.
  std::shared_ptr<const void> get() const;
  // The number of a new value, taken before its settings are read.
  std::uint64_t begin() { return ++m_nBegun; }
  // Puts a value in force, unless one with a higher number is. Has `teller` notify of each setting
  // that differs from the value before.
  void install(VarnCollaborator& teller, std::uint64_t number, std::shared_ptr<const void> value,
               const VarnSettings& settings);

 private:
  struct Entry;

  const std::shared_ptr<const VarnSettings::Sources> m_pSources;
  std::atomic<std::uint64_t> m_nBegun{0};
  mutable VarnCriticalSectionObject m_oLock;
  std::shared_ptr<const Entry> m_pEntry VSUPT_GUARDED_BY(m_oLock);
};

// Holds the newest good T. After each reload() that puts a new one in force, its dependents get a
// PropertyChanged for every key that T has asked for and whose text (with references replaced, as
// the layers say it, not the preset) differs from before, in key order and on that thread; get()
// has the new value by then. Reloads on several threads at once may tell in either order.
template <typename T>
class VarnReloaded : public VarnCollaborator {
 public:
  using tMake = std::function<std::shared_ptr<const T>(VarnSettings& settings)>;

  // Makes the first value. Throws what reload() throws. The file and the working directory are
  // those of this moment, wherever the process goes later. Without `make`, which may be called by
  // several threads at once, T is constructed from the settings. T need not call
  // VarnSettings::finish(), which follows, unless it acts on them itself.
  explicit VarnReloaded(
      const std::string& fileName,
      const VarnProperties<std::string>& commandLine = VarnProperties<std::string>(),
      const std::string& prefix = std::string(), tMake make = &fromSettings)
      : m_make(std::move(make)), m_oSlot(VarnSettings::makeSources(fileName, commandLine, prefix)) {
    reload();
  }
  VarnReloaded(const VarnReloaded&) = delete;
  VarnReloaded& operator=(const VarnReloaded&) = delete;

  // Never null. Readers keep what they hold, whatever is reloaded meanwhile.
  std::shared_ptr<const T> get() const { return std::static_pointer_cast<const T>(m_oSlot.get()); }

  // Reads the file again. Throws VarnSettingsError, or what T or `make` throws, with the old value
  // in force; what a dependent throws is passed on, with the new value in force and later
  // dependents not told. Of several reloads at once the one that was called last stays in force.
  void reload() {
    const std::uint64_t number = m_oSlot.begin();
    VarnSettings settings(m_oSlot.sources());
    std::shared_ptr<const T> made = m_make(settings);
    settings.finish();
    m_oSlot.install(*this, number, std::move(made), settings);
  }

 private:
  static std::shared_ptr<const T> fromSettings(VarnSettings& settings) {
    return std::make_shared<const T>(settings);
  }

  const tMake m_make;
  VarnReloadedSlot m_oSlot;
};

}  // namespace VarnSupport

#endif
