// The message texts of one component for one locale, from property files.
//
// For the base name "msg" and the locale en_US.UTF-8 these are msg.pro, msg_en.pro and, if it is
// there, msg_en_US.pro. A key in a later file replaces that of an earlier one. Any number of
// threads may read the messages of one object while none assigns to it.
#ifndef VARNSUPPORT_VARNMESSAGESET_H
#define VARNSUPPORT_VARNMESSAGESET_H

#include <locale>
#include <string>

#include "VarnSupport/VarnExport.h"
#include "VarnSupport/VarnProperties.h"

namespace VarnSupport {

class VSUPT_EXPORT VarnMessageSet {
 public:
  // Loads the set of `baseName`, a path without the ending, and throws what loadSet() throws.
  VarnMessageSet(const std::string& baseName, std::locale locale);
  VarnMessageSet(const VarnMessageSet&) = default;
  VarnMessageSet& operator=(const VarnMessageSet&) = default;
  virtual ~VarnMessageSet();

  // Adds the files of another base name. Throws VarnException (code 0), keeping what was loaded
  // until then, when the file of the base or, for a locale that has a language, that of the
  // language cannot be read. The country's file may be missing.
  void loadSet(const std::string& baseName);

  const VarnProperties<std::string>& getMessages() const { return m_oMessages; }
  const std::locale& getLocale() const { return m_oLocale; }

 private:
  std::locale m_oLocale;
  VarnProperties<std::string> m_oMessages{false};
};

}  // namespace VarnSupport

#endif
