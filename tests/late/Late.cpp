// A program whose main thread has the library loaded by another thread, then uses it, and ends.
#include <dlfcn.h>
#include <pthread.h>

#include <thread>

int main(int, char** arguments) {
  void* plugin = nullptr;
  std::thread([&] { plugin = dlopen(arguments[1], RTLD_NOW); }).join();
  if (plugin == nullptr)
    return 1;
  reinterpret_cast<void (*)()>(dlsym(plugin, "useTimer"))();
  pthread_exit(nullptr);
}
