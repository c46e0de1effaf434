// A fault is kept as the text that is shown, so that what it tells of need not be kept. Faults are
// put in order at the end alone, when readers of settings have come across them in any order; of
// one place they stay as they came. A file that is wrong throughout costs no more than its first
// hundred.
#include "settings/SettingsFaults.h"

#include <algorithm>
#include <tuple>

#include "text/TextColumns.h"

namespace VarnSupport {

void SettingsFaults::add(const SettingsPlace& place, const std::string& key,
                         const std::string& reason) {
  if (isFull()) {
    ++m_nMore;
    return;
  }
  std::string text;
  if (place.layer == SettingsPlace::COMMAND_LINE)
    text = "command line: ";
  else if (place.layer == SettingsPlace::ENVIRONMENT)
    text = "environment: ";
  else if (place.line > 0)
    text = escapedText(m_sFileName) + ':' + std::to_string(place.line) + ": ";
  else if (!m_sFileName.empty())
    text = escapedText(m_sFileName) + ": ";
  if (!key.empty())
    text += escapedText(key) + ": ";
  Fault fault{place, text + reason};
  if (std::find(m_vFaults.begin(), m_vFaults.end(), fault) == m_vFaults.end())
    m_vFaults.push_back(std::move(fault));
}

std::vector<std::string> SettingsFaults::texts() const {
  std::vector<Fault> faults = m_vFaults;
  std::stable_sort(faults.begin(), faults.end(), [](const Fault& left, const Fault& right) {
    return std::tie(left.place.layer, left.place.line) <
           std::tie(right.place.layer, right.place.line);
  });
  std::vector<std::string> texts;
  texts.reserve(faults.size() + 1);
  for (Fault& fault : faults)
    texts.push_back(std::move(fault.text));
  if (m_nMore > 0)
    texts.push_back("and " + std::to_string(m_nMore) + " more");
  return texts;
}

}  // namespace VarnSupport
