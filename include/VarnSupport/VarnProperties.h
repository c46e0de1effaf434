// Property sets: every key names an ordered list of text values. They load from, and save to, text
// files of one property per line.
//
// All operations are safe from any thread. Look-ups and changes hold the set's own lock; walks,
// copies and saved files are made from one state of the set. A load takes the lock for a few lines
// at a time, so that others may see it half done. Failures to open a file are reported by the
// result of the ...Impl forms and by a VarnException (code 0) from the others.
//
// A file's line is a comment when it begins with '#', else a key, a separator and a value: all
// before the first separator is the key, blanks included; all after it, without its leading blanks
// and from its first carriage return on, is the value. There are no escapes and no continuation
// lines. Narrow sets read bytes; wide sets read and write through the conversion of the global
// locale at the time of the call, and a character that it refuses ends the file. A file that begins
// with the bytes FF FE is UTF-16 with the low byte first, of which the low bytes are kept.
#ifndef VARNSUPPORT_VARNPROPERTIES_H
#define VARNSUPPORT_VARNPROPERTIES_H

#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "VarnSupport/VarnCollaborator.h"
#include "VarnSupport/VarnCriticalSection.h"
#include "VarnSupport/VarnExport.h"
#include "VarnSupport/VarnObjectBase.h"
#include "VarnSupport/VarnStringUtilities.h"

// A key with its values, as a walk over a set hands it out.
template <typename StringType>
class VarnPropertyIteratorParameter {
 public:
  using tProperty = std::pair<const StringType, std::vector<StringType>>;

  VarnPropertyIteratorParameter() = default;
  VarnPropertyIteratorParameter(const tProperty& property)
      : m_key(property.first), m_values(property.second) {}
  VarnPropertyIteratorParameter& operator=(const tProperty& property) {
    return *this = VarnPropertyIteratorParameter(property);
  }

  StringType m_key;
  std::vector<StringType> m_values;
};

namespace VarnSupport {

// What a walk over a set calls. Clients derive from it.
template <typename StringType>
class VSUPT_EXPORT VarnPropertyIterator {
 public:
  VarnPropertyIterator() = default;
  VarnPropertyIterator(const VarnPropertyIterator&) = default;
  VarnPropertyIterator& operator=(const VarnPropertyIterator&) = default;
  virtual ~VarnPropertyIterator();

  // Does nothing by default.
  virtual void process(const VarnPropertyIteratorParameter<StringType>& property);
};

// Hands properties to an iterator, which must outlive it.
template <typename StringType>
class VSUPT_EXPORT VarnPropertyIteratorFunctor {
 public:
  explicit VarnPropertyIteratorFunctor(VarnPropertyIterator<StringType>& iterator)
      : m_rIterator(iterator) {}

  void operator()(const std::pair<const StringType, std::vector<StringType>>& property) const {
    m_rIterator.process(VarnPropertyIteratorParameter<StringType>(property));
  }

 private:
  VarnPropertyIterator<StringType>& m_rIterator;
};

// A property set over std::string, std::wstring, ci_string or ci_wstring. In the case-insensitive
// forms 'Port' and 'port' are one key, which keeps its first spelling, and separators match either
// case. No key is empty, and every key has at least one value, which may be empty.
template <typename StringType>
class VSUPT_EXPORT VarnProperties : public VarnObjectBase, public VarnCollaborator {
 public:
  using CharT = typename StringType::value_type;
  using tProperties = std::map<StringType, std::vector<StringType>>;

  VarnProperties() : VarnProperties(true) {}
  // With `multiValued`, as by default, a key that is added again gains a value; otherwise its first
  // value changes.
  explicit VarnProperties(bool multiValued) : m_bMultiValued(multiValued) {}
  // Copies take the properties and the flag; dependents and reference counts stay with each set,
  // also on assignment.
  VarnProperties(const VarnProperties& source);
  VarnProperties& operator=(const VarnProperties& source) VSUPT_UNCHECKED;
  ~VarnProperties() override;

  // The first value of `key`. Throws VarnPropertyNotFound.
  StringType getProperty(const StringType& key) const;
  // A reference to the first value of `key`, or to `defaultValue`, which must outlive its use. A
  // value in the set is valid until that key is changed.
  const StringType& getProperty(const StringType& key, const StringType& defaultValue) const;
  // A default that is a temporary yields a text of its own.
  template <typename Text = StringType>
  Text getProperty(const StringType& key, const StringType&& defaultValue) const {
    Text value(defaultValue);
    getPropertyValue(key, value);
    return value;
  }
  // False, and `value` as it was, when there is no such key.
  bool getPropertyValue(const StringType& key, StringType& value) const;
  // All values in the order in which they were added; none for an unknown key.
  std::vector<StringType> getPropertyValues(const StringType& key) const;
  tProperties getProperties() const;
  // The number of keys.
  std::size_t size() const;

  // An empty key is ignored.
  void addProperty(const StringType& key, const StringType& value);
  // Adds the property that a line of a file holds; nothing for a comment or an empty key. Without a
  // separator the whole line is a key with an empty value. A line feed ends a value as well.
  void addProperty(const StringType& line, CharT separator);
  // Adds the whole line as a key with an empty value, unless it begins with '#'.
  void addPropertyforWSmanDA(const StringType& line);
  // Changes the first value of `key` and keeps the others; adds the key if there is none.
  void setProperty(const StringType& key, const StringType& value);
  // With all its values; an unknown key is nothing to remove.
  void removeProperty(const StringType& key);

  // Calls `iterator` with each property in key order, for the set as it is when the walk begins.
  // No lock is held meanwhile.
  void forEach(VarnPropertyIterator<StringType>& iterator);

  // Adds the properties of a file, whose name is logged at level 5, and at level 9 what the set
  // then holds, values included. Returns true; throws VarnException when it cannot be opened, with
  // the set unchanged. A read that fails later ends the file.
  bool loadProperties(const std::string& fileName, CharT separator);
  // False when the file cannot be opened.
  bool loadPropertiesImpl(const std::string& fileName, CharT separator);
  // Adds the properties of lines in memory; null ones are skipped, and a count below 1 does
  // nothing.
  void loadProperties(const CharT** lines, int count, CharT separator);
  void loadProperties(const std::vector<StringType>& lines, CharT separator);

  // Writes a file with a line "key=value" for the first value of each key, in key order. Lines go
  // out whole, and one by one to what is no regular file. Returns true, also when a write fails,
  // after which nothing more is written; throws VarnException when the file cannot be opened.
  bool saveProperties(const std::string& fileName);
  // False when the file cannot be opened.
  bool savePropertiesImpl(const std::string& fileName);

 private:
  using tView = std::basic_string_view<CharT>;
  using tPlace = typename tProperties::iterator;

  VSUPT_LOCAL const std::pair<const StringType, std::vector<StringType>>* findLocked(
      const StringType& key) const VSUPT_REQUIRES(m_oLock);
  const StringType* firstValueLocked(const StringType& key) const VSUPT_REQUIRES(m_oLock);
  VSUPT_LOCAL tPlace addLocked(const StringType& key, tView value, tPlace near)
      VSUPT_REQUIRES(m_oLock);
  void addLines(const std::vector<tView>& lines, CharT separator);
  std::vector<StringType> blocksOfLines() const;

  mutable VarnCriticalSectionObject m_oLock;
  tProperties m_mapProperties VSUPT_GUARDED_BY(m_oLock);
  bool m_bMultiValued VSUPT_GUARDED_BY(m_oLock);
  // The index of the keys, as bytes; programs that were built with 1.0 construct an empty text.
  mutable StringType m_sIndex VSUPT_GUARDED_BY(m_oLock);
};

extern template class VarnPropertyIterator<std::string>;
extern template class VarnPropertyIterator<std::wstring>;
extern template class VarnPropertyIterator<ci_string>;
extern template class VarnPropertyIterator<ci_wstring>;
extern template class VarnPropertyIteratorFunctor<std::string>;
extern template class VarnPropertyIteratorFunctor<std::wstring>;
extern template class VarnPropertyIteratorFunctor<ci_string>;
extern template class VarnPropertyIteratorFunctor<ci_wstring>;
extern template class VarnProperties<std::string>;
extern template class VarnProperties<std::wstring>;
extern template class VarnProperties<ci_string>;
extern template class VarnProperties<ci_wstring>;
extern template class VarnSmartPointer<VarnProperties<std::string>>;

// `text` with each <name> replaced by the first value of that property or, if there is none, by
// the environment variable of that name, empty when that is not set either. Replacements are
// expanded in turn: a value that refers to itself never ends, and its thread must be cancelled;
// callers rely on the rescan. A '<' without a later '>' ends the expansion.
VSUPT_EXPORT std::string VarnExpandString(const std::string& text,
                                          VarnProperties<std::string>& properties);

}  // namespace VarnSupport

#endif
