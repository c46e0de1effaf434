// A set is a map from keys to the list of their values, which is never empty, under one lock. A set
// that is looked up often has an index of its keys besides (PropertyIndex.h). What
// a caller gives or gets is copied under that lock; logging, reading and writing files happen
// outside of it, so that a slow disk holds nobody up. A file is read in blocks of lines: other
// threads see a load that is under way block by block, as if each line had been added by itself.
//
// A reference that getProperty() gives is to a value inside of the set, and stays good until that
// value is changed or removed: values are kept in vectors behind the nodes of a map, which do not
// move. Everything else is given by copy.
#include "VarnSupport/VarnProperties.h"

#include <algorithm>
#include <cassert>
#include <functional>
#include <iterator>

#include "VarnSupport/VarnException.h"
#include "locks/BriefHold.h"
#include "log/OwnRecords.h"
#include "runtime/BriefGate.h"
#include "runtime/Cancellation.h"
#include "text/PropertyFile.h"
#include "text/PropertyIndex.h"
#include "text/PropertyLine.h"
#include "text/ReferenceExpansion.h"

namespace VarnSupport {

namespace {

constexpr std::size_t kBlockCharacters = 32768;
constexpr std::size_t kLinesPerHold = 32;  // for which others wait some microseconds
constexpr int kPlacesTried = 4;            // the next key of a sorted block is seldom further

void logFile(const char* step, const std::string& fileName) {
  OwnRecords::write(OwnRecords::EVENT, "VarnProperties<StringType>::", step, fileName);
}

[[noreturn]] void throwUnopened(const char* operation, const std::string& fileName) {
  throw VarnException(
      std::string("VarnProperties<StringType>::") + operation + ": couldn't open file " + fileName,
      0);
}

template <typename StringType>
using IndexOf = PropertyIndex<StringType, std::pair<const StringType, std::vector<StringType>>>;

// Where a key is, or belongs. Keys often come in order: the end is tried, and the places from
// `near` on, which is not behind the one sought unless it is the end, before the search.
template <typename Properties>
auto placeOf(Properties& properties, const typename Properties::key_type& key,
             typename Properties::iterator near) {
  const auto less = properties.key_comp();
  if (properties.empty() || less(std::prev(properties.end())->first, key))
    return properties.end();
  for (int tried = 0; near != properties.end() && tried < kPlacesTried; ++near, ++tried) {
    if (!less(near->first, key))
      return near;
  }
  return properties.lower_bound(key);
}

// The global level is exactly the trace level.
bool isTracing() {
  return OwnRecords::areWanted(OwnRecords::TRACE) && !VarnLogging::admits(OwnRecords::TRACE + 1);
}

}  // namespace

template <typename StringType>
VarnPropertyIterator<StringType>::~VarnPropertyIterator() = default;

template <typename StringType>
void VarnPropertyIterator<StringType>::process(const VarnPropertyIteratorParameter<StringType>&) {}

template <typename StringType>
VarnProperties<StringType>::VarnProperties(const VarnProperties& source)
    : VarnObjectBase(source), VarnCollaborator(source) {
  const CancellationGuard closed;
  const WholeHold hold(source.m_oLock);
  m_mapProperties = source.m_mapProperties;
  m_bMultiValued = source.m_bMultiValued;
}

// Takes both locks in the order of their addresses: two sets may be assigned to each other.
template <typename StringType>
VarnProperties<StringType>& VarnProperties<StringType>::operator=(const VarnProperties& source) {
  if (this == &source)
    return *this;
  const CancellationGuard closed;
  tProperties properties;  // what was there goes after the locks
  const bool lockedFirst = std::less<const VarnProperties*>()(this, &source);
  const BriefGate::Pass pass;
  const VarnCriticalSection first(lockedFirst ? m_oLock : source.m_oLock);
  const VarnCriticalSection second(lockedFirst ? source.m_oLock : m_oLock);
  properties = source.m_mapProperties;
  properties.swap(m_mapProperties);
  IndexOf<StringType>(m_sIndex).clear();
  m_bMultiValued = source.m_bMultiValued;
  return *this;
}

// The map is emptied here, where cancellation is closed; members go after this body.
template <typename StringType>
VarnProperties<StringType>::~VarnProperties() {
  const QuietCancellationGuard closed;
  m_mapProperties.clear();
}

template <typename StringType>
StringType VarnProperties<StringType>::getProperty(const StringType& key) const {
  const CancellationGuard closed;
  {
    const WholeHold hold(m_oLock);
    const StringType* const value = firstValueLocked(key);
    if (value != nullptr)
      return *value;
  }
  throw VarnPropertyNotFound(key);
}

// The reference is to a value inside of the set, good until somebody changes that.
template <typename StringType>
const StringType& VarnProperties<StringType>::getProperty(const StringType& key,
                                                          const StringType& defaultValue) const {
  const CancellationGuard closed;
  const WholeHold hold(m_oLock);
  const StringType* const value = firstValueLocked(key);
  return value != nullptr ? *value : defaultValue;
}

template <typename StringType>
bool VarnProperties<StringType>::getPropertyValue(const StringType& key, StringType& value) const {
  const CancellationGuard closed;
  const WholeHold hold(m_oLock);
  const StringType* const found = firstValueLocked(key);
  if (found == nullptr)
    return false;
  value = *found;
  return true;
}

template <typename StringType>
std::vector<StringType> VarnProperties<StringType>::getPropertyValues(const StringType& key) const {
  const CancellationGuard closed;
  const WholeHold hold(m_oLock);
  const auto* const found = findLocked(key);
  return found != nullptr ? found->second : std::vector<StringType>();
}

template <typename StringType>
auto VarnProperties<StringType>::getProperties() const -> tProperties {
  const CancellationGuard closed;
  const WholeHold hold(m_oLock);
  return m_mapProperties;
}

template <typename StringType>
std::size_t VarnProperties<StringType>::size() const {
  const CancellationGuard closed;
  const WholeHold hold(m_oLock);
  return m_mapProperties.size();
}

template <typename StringType>
void VarnProperties<StringType>::addProperty(const StringType& key, const StringType& value) {
  if (key.empty())
    return;
  const CancellationGuard closed;
  const WholeHold hold(m_oLock);
  addLocked(key, tView(value.data(), value.size()), m_mapProperties.end());
}

template <typename StringType>
void VarnProperties<StringType>::addProperty(const StringType& line, CharT separator) {
  const CancellationGuard closed;
  const PropertyLine<StringType> property(tView(line.data(), line.size()), separator);
  const StringType key(property.key);
  if (key.empty())
    return;
  const WholeHold hold(m_oLock);
  addLocked(key, property.value, m_mapProperties.end());
}

// The whole line is the key, and the value is empty.
template <typename StringType>
void VarnProperties<StringType>::addPropertyforWSmanDA(const StringType& line) {
  const CancellationGuard closed;
  if (!line.empty() && line.front() != CharT('#'))
    addProperty(line, StringType());
}

template <typename StringType>
void VarnProperties<StringType>::setProperty(const StringType& key, const StringType& value) {
  if (key.empty())
    return;
  const CancellationGuard closed;
  const WholeHold hold(m_oLock);
  const auto found = m_mapProperties.find(key);
  if (found != m_mapProperties.end())
    found->second.front() = value;
  else
    addLocked(key, tView(value.data(), value.size()), m_mapProperties.end());
}

template <typename StringType>
void VarnProperties<StringType>::removeProperty(const StringType& key) {
  const CancellationGuard closed;
  const WholeHold hold(m_oLock);
  const auto found = m_mapProperties.find(key);
  if (found == m_mapProperties.end())
    return;
  if (IndexOf<StringType> index(m_sIndex); index.exists())
    index.remove(key);
  m_mapProperties.erase(found);
}

// The walk is over a copy: the iterator may change the set.
template <typename StringType>
void VarnProperties<StringType>::forEach(VarnPropertyIterator<StringType>& iterator) {
  const CancellationGuard closed;
  const tProperties properties = getProperties();
  std::for_each(properties.begin(), properties.end(),
                VarnPropertyIteratorFunctor<StringType>(iterator));
}

template <typename StringType>
bool VarnProperties<StringType>::loadProperties(const std::string& fileName, CharT separator) {
  const CancellationGuard closed;
  if (!loadPropertiesImpl(fileName, separator))
    throwUnopened("loadProperties", fileName);
  return true;
}

template <typename StringType>
bool VarnProperties<StringType>::loadPropertiesImpl(const std::string& fileName, CharT separator) {
  const CancellationGuard closed;
  logFile("loadProperties: from file ", fileName);
  PropertyFileReader<CharT> file(fileName.c_str());  // which ends at a NUL
  if (!file.isOpen()) {
    logFile("loadProperties: couldn't open file ", fileName);
    return false;
  }
  std::vector<tView> lines;
  while (file.nextLines(lines))
    addLines(lines, separator);
  // The list is of the whole set, not of what this file has brought.
  if (isTracing()) {
    for (const auto& [name, values] : getProperties())
      OwnRecords::write(OwnRecords::TRACE, "DebugPrintProperty: ", name, "=", values.front(), " (",
                        values.front().size(), ")");
  }
  return true;
}

// Null entries are no lines.
template <typename StringType>
void VarnProperties<StringType>::loadProperties(const CharT** lines, int count, CharT separator) {
  const CancellationGuard closed;
  std::vector<tView> views;
  views.reserve(static_cast<std::size_t>(std::max(count, 0)));
  for (int i = 0; i < count; ++i) {
    if (lines[i] != nullptr)
      views.emplace_back(lines[i]);
  }
  addLines(views, separator);
}

template <typename StringType>
void VarnProperties<StringType>::loadProperties(const std::vector<StringType>& lines,
                                                CharT separator) {
  const CancellationGuard closed;
  std::vector<tView> views;
  views.reserve(lines.size());
  for (const StringType& line : lines)
    views.emplace_back(line.data(), line.size());
  addLines(views, separator);
}

template <typename StringType>
bool VarnProperties<StringType>::saveProperties(const std::string& fileName) {
  const CancellationGuard closed;
  if (!savePropertiesImpl(fileName))
    throwUnopened("saveProperties", fileName);
  return true;
}

// Lines are made in memory first, under the lock, and written without it. A failed write ends the
// file, and is no failure of the call.
template <typename StringType>
bool VarnProperties<StringType>::savePropertiesImpl(const std::string& fileName) {
  const CancellationGuard closed;
  logFile("saveProperties: to file ", fileName);
  PropertyFileWriter file(fileName.c_str());
  if (!file.isOpen()) {
    logFile("saveProperties: couldn't open file ", fileName);
    return false;
  }
  for (const StringType& block : blocksOfLines()) {
    if (!file.write(tView(block.data(), block.size())))
      break;
  }
  return true;
}

template <typename StringType>
auto VarnProperties<StringType>::findLocked(const StringType& key) const
    -> const std::pair<const StringType, std::vector<StringType>>* {
  IndexOf<StringType> index(m_sIndex);
  if (index.exists() || index.makeIfDue(m_mapProperties))
    return index.find(key);
  const auto found = m_mapProperties.find(key);
  return found != m_mapProperties.end() ? &*found : nullptr;
}

template <typename StringType>
const StringType* VarnProperties<StringType>::firstValueLocked(const StringType& key) const {
  const auto* const found = findLocked(key);
  assert(found == nullptr || !found->second.empty());
  return found != nullptr ? &found->second.front() : nullptr;
}

template <typename StringType>
auto VarnProperties<StringType>::addLocked(const StringType& key, tView value, tPlace near)
    -> tPlace {
  assert(!key.empty());
  auto place = placeOf(m_mapProperties, key, near);
  if (place == m_mapProperties.end() || m_mapProperties.key_comp()(key, place->first)) {
    std::vector<StringType> values;
    values.emplace_back(value.data(), value.size());
    place = m_mapProperties.emplace_hint(place, key, std::move(values));
    if (IndexOf<StringType> index(m_sIndex); index.exists())
      index.add(*place, m_mapProperties.size());
  } else if (m_bMultiValued) {
    place->second.emplace_back(value.data(), value.size());
  } else {
    place->second.front().assign(value.data(), value.size());
  }
  return place;
}

// Adds lines in key order, which costs a sort but spares most of the search, and leaves neighbours
// side by side in memory. Lines of one key keep their order.
template <typename StringType>
void VarnProperties<StringType>::addLines(const std::vector<tView>& lines, CharT separator) {
  std::vector<PropertyLine<StringType>> properties;
  properties.reserve(lines.size());
  for (const tView line : lines)
    properties.emplace_back(line, separator);
  if (!std::is_sorted(properties.begin(), properties.end()))
    std::stable_sort(properties.begin(), properties.end());
  StringType key;
  for (auto property = properties.begin(); property != properties.end();) {
    const WholeHold hold(m_oLock);
    tPlace place = m_mapProperties.end();
    for (std::size_t i = 0; i < kLinesPerHold && property != properties.end(); ++i, ++property) {
      key = property->key;
      if (!key.empty())
        place = addLocked(key, property->value, place);
    }
  }
}

// The lines of all properties, from one state of the set. Each block ends with a line: whoever
// reads the file meanwhile, or finds it after the process was killed, sees whole lines.
template <typename StringType>
std::vector<StringType> VarnProperties<StringType>::blocksOfLines() const {
  std::vector<StringType> blocks;
  const WholeHold hold(m_oLock);
  for (const auto& [key, values] : m_mapProperties) {
    const StringType& value = values.front();
    const std::size_t length = key.size() + value.size() + 2;
    if (blocks.empty() || blocks.back().capacity() - blocks.back().size() < length)
      blocks.emplace_back().reserve(std::max(length, kBlockCharacters));
    StringType& block = blocks.back();
    assert(block.capacity() - block.size() >= length);
    block += key;
    block += CharT('=');
    block += value;
    block += CharT('\n');
  }
  return blocks;
}

template class VarnPropertyIterator<std::string>;
template class VarnPropertyIterator<std::wstring>;
template class VarnPropertyIterator<ci_string>;
template class VarnPropertyIterator<ci_wstring>;
template class VarnPropertyIteratorFunctor<std::string>;
template class VarnPropertyIteratorFunctor<std::wstring>;
template class VarnPropertyIteratorFunctor<ci_string>;
template class VarnPropertyIteratorFunctor<ci_wstring>;
template class VarnProperties<std::string>;
template class VarnProperties<std::wstring>;
template class VarnProperties<ci_string>;
template class VarnProperties<ci_wstring>;
template class VarnSmartPointer<VarnProperties<std::string>>;

std::string VarnExpandString(const std::string& text, VarnProperties<std::string>& properties) {
  const CancellationGuard closed;
  return expandReferences(text, [&](const std::string& name) {
    std::string value;
    return properties.getPropertyValue(name, value) ? value : environmentValue(name);
  });
}

}  // namespace VarnSupport
