// Bytes of the heap per cipher, observer, tree node, property, pattern, stream and counted object.
#include "Sizes.h"

#include <map>
#include <regex>
#include <sstream>

#include "PropertySides.h"

#ifdef PEER_POCO
#include <Poco/BasicEvent.h>
#include <Poco/Delegate.h>
#include <Poco/Notification.h>
#endif
#ifdef PEER_BOOST
#include <boost/signals2/signal.hpp>
#endif
#ifdef PEER_RE2
#include <re2/re2.h>
#endif
#ifdef PEER_OPENSSL
#define OPENSSL_SUPPRESS_DEPRECATED
#include <openssl/blowfish.h>
#endif
#ifdef PEER_NETTLE
#include <nettle/blowfish.h>
#endif
#ifdef PEER_BOTAN
#include <botan/block_cipher.h>
#endif

namespace {

using namespace VarnSupport;
using Bench::addSize;
using Bench::addSizeOfFilled;

const std::string g_sKey("sixteen byte key");
const auto* keyBytes() { return reinterpret_cast<const unsigned char*>(g_sKey.data()); }

void addCiphers() {
  addSize<VarnEncryption>("cipher with its key", "ours", [](auto& cipher) {
    std::string text("8 bytes.");
    cipher.encryptData(g_sKey, text, text);
  });
#ifdef PEER_OPENSSL
  addSize<BF_KEY>("cipher with its key", "OpenSSL", [](BF_KEY& schedule) {
    BF_set_key(&schedule, static_cast<int>(g_sKey.size()), keyBytes());
  });
#endif
#ifdef PEER_NETTLE
  addSize<blowfish_ctx>("cipher with its key", "nettle", [](blowfish_ctx& schedule) {
    blowfish_set_key(&schedule, g_sKey.size(), keyBytes());
  });
#endif
#ifdef PEER_BOTAN
  using Holder = std::unique_ptr<Botan::BlockCipher>;
  addSize<Holder>("cipher with its key", "Botan", [](Holder& cipher) {
    cipher = Botan::BlockCipher::create("Blowfish");
    cipher->set_key(keyBytes(), g_sKey.size());
  });
#endif
}

struct OurObserver : VarnDependent {};
struct PeerObserver {
  void handle(const int&) {}
};

void addObservers() {
  constexpr int kObservers = 1000;
  const auto addSide = [](const char* side, auto make, auto observe) {
    addSizeOfFilled("observer", side, kObservers, make, [observe](auto& source, int count) {
      for (int i = 0; i < count; ++i)
        observe(*source);
    });
  };
  addSide(
      "ours", [] { return std::make_unique<VarnCollaborator>(); },
      [](auto& source) {
        static OurObserver observer;
        source.addDependent(observer);
      });
#ifdef PEER_POCO
  addSide(
      "POCO", [] { return std::make_unique<Poco::BasicEvent<const int>>(); },
      [](auto& source) {
        static PeerObserver observer;
        source += Poco::delegate(&observer, &PeerObserver::handle);
      });
#endif
#ifdef PEER_BOOST
  addSide(
      "Boost", [] { return std::make_unique<boost::signals2::signal<void(int)>>(); },
      [](auto& source) {
        static PeerObserver observer;
        source.connect([](int id) { observer.handle(id); });
      });
#endif
}

struct Node {
  std::map<std::string, std::unique_ptr<Node>> children;
};

// Children of one node, whose keys are property keys.
void addNodes() {
  constexpr int kNodes = 10000;
  const auto addSide = [](const char* side, auto make, auto addChild) {
    addSizeOfFilled("tree node", side, kNodes, make, [addChild](auto& root, int count) {
      for (const Bench::Property& property : Bench::properties(count))
        addChild(*root, property.key);
    });
  };
  addSide(
      "ours", [] { return VarnSmartPointer<VarnTreeNode>(new VarnTreeNode); },
      [](VarnTreeNode& root, const std::string& key) { root.add(new VarnTreeNode(key)); });
  addSide(
      "std", [] { return std::make_unique<Node>(); },
      [](Node& root, const std::string& key) {
        root.children.emplace(key, std::make_unique<Node>());
      });
#ifdef PEER_BOOST
  using Tree = boost::property_tree::ptree;
  addSide(
      "Boost", [] { return std::make_unique<Tree>(); },
      [](Tree& root, const std::string& key) {
        root.push_back({key, {}});
      });
#endif
}

void addProperties() {
  constexpr int kProperties = 10000;
  Bench::addPropertySides([](auto side, const char* name) {
    using Side = typename decltype(side)::type;
    addSizeOfFilled(
        "property of a set", name, kProperties,
        [] {
          Bench::fileOf(kProperties, Side::kGroup);  // and the properties, which stay
          return std::make_unique<Side>();
        },
        [](auto& set, int count) { set->load(Bench::fileOf(count, Side::kGroup)); });
  });
  using Map = std::map<std::string, std::vector<std::string>>;
  addSizeOfFilled(
      "property of a set", "limit: map of vectors", kProperties, [] { return Map(); },
      [](Map& map, int count) {
        for (const Bench::Property& property : Bench::properties(count))
          map[property.key].push_back(property.value);
      });
}

void addOthers() {
  using Pattern = VarnRegularExpression<std::string>;
  addSize<Pattern>("pattern", "ours",
                   [](Pattern& pattern) { pattern.setPattern("error [0-9]+:"); });
  addSize<std::regex>("pattern", "std", [](std::regex& pattern) { pattern = "error [0-9]+:"; });
  addSize<VarnBufferStream>("stream with an int", "ours", [](auto& stream) { stream << 1; });
  addSize<std::stringstream>("stream with an int", "std", [](auto& stream) { stream << 1; });
  using Pointer = VarnSmartPointer<VarnObjectBase>;
  addSize<Pointer>("object that is counted", "ours", [](auto& held) { held = new VarnObjectBase; });
  addSize<std::shared_ptr<int>>("object that is counted", "std",
                                [](auto& held) { held = std::make_shared<int>(0); });
#ifdef PEER_POCO
  addSize<Poco::AutoPtr<Poco::RefCountedObject>>("object that is counted", "POCO",
                                                 [](auto& held) { held = new Poco::Notification; });
#endif
#ifdef PEER_RE2
  addSize<std::unique_ptr<RE2>>("pattern", "RE2", [](auto& pattern) {
    pattern = std::make_unique<RE2>("error [0-9]+:", RE2::Quiet);
  });
#endif
}

const bool g_bAdded = [] {
  addCiphers();
  addObservers();
  addNodes();
  addProperties();
  addOthers();
  return true;
}();

}  // namespace
