#include "console_bundle.h"

#include <filesystem>
#include <fstream>
#include <sstream>
#include <vector>

namespace fs = std::filesystem;

static const char k_begin[] = R"((() => {
const loaded = {};
const load = name => {
  if (!loaded[name]) {
    loaded[name] = {exports: {}};
    modules[name](path => {
      const base = new URL(name, 'http://modules/'); // resolves "." and ".."
      return load(new URL(path, base).pathname.slice(1));
    }, loaded[name], loaded[name].exports);
  }
  return loaded[name].exports;
};
const modules = {
)";

static bool ends_with(const std::string &text, const std::string &end)
{
    return text.size() > end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

static std::string module_text(const fs::path &path, const std::string &name)
{
    std::ifstream stream(path, std::ios::binary);
    std::ostringstream text;
    text << "'" << name << "': (require, module, exports) => {\n" << stream.rdbuf() << "\n},\n";
    return text.str();
}

std::string console_bundle(const std::string &folder, const std::string &entry)
{
    std::error_code error;
    if (!fs::exists(folder + "/" + entry + ".js", error))
        return "";
    std::string script = k_begin;
    for (const auto &item : fs::recursive_directory_iterator(folder, error)) {
        const std::string name = item.path().lexically_relative(folder).string();
        if (ends_with(name, ".js") && !ends_with(name, ".test.js"))
            script += module_text(item.path(), name.substr(0, name.size() - 3));
    }
    return script + "};\nwindow.Terminal = load('" + entry + "').Terminal;\n})();\n";
}
