// nimbkit layout FILE.json: builds a view tree with layout constraints from
// a JSON description, lays it out, prints every view's frame and draws the
// tree to PNG files (ViewRenderer). With --hide it collapses a view by its
// height (NimbKit::ALView_hideByHeight) and shows the result; with --detach
// it takes a view out of its superview under a NimbConstraintCache record
// and puts it back, showing the tree without it and restored.
//
// The description is read whole, at most 1 MiB, nested at most 64 levels,
// and every entry is checked before anything is laid out: a bad entry is
// reported with the file and where it is, and nothing is written.
#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include <NimbFoundation/NimbConstraintCache.h>
#include <NimbFoundation/NimbKit.h>
#include <NimbFoundation/Platform/Graphics/LayoutConstraint.h>
#include <NimbFoundation/Platform/Graphics/View.h>
#include <NimbFoundation/Platform/Graphics/ViewRenderer.h>

#include "Command.h"
#include "DisplayText.h"
#include "Output.h"

namespace nimbkit {

namespace {

using nlohmann::json;
namespace fs = std::filesystem;

constexpr std::size_t kMaxFileBytes = 1 << 20;
constexpr std::uintmax_t kMaxImageBytes = 32 << 20;
constexpr int kMaxJsonNesting = 64;
constexpr int kMaxViewDepth = 24;  // each level of views takes two of JSON
constexpr std::size_t kMaxViews = 2000;
constexpr std::size_t kMaxConstraints = 10000;
// Coordinates, sizes and constants beyond this many points are refused.
constexpr double kMaxMagnitude = 1e6;

const char* const kHelpFooter = R"HELP(Description (JSON):
  {"root": VIEW, "constraints": [CONSTRAINT...], "sizeToSubviews": false}
  sizeToSubviews: after each layout the root becomes 320 wide, at (0, 0),
  and as tall as its constraints allow at the least.
  VIEW: {"id": "card", "frame": [x, y, w, h], "color": "#RRGGBB" or "#RRGGBBAA",
         "image": "file.png" (relative to the JSON file; makes an image view),
         "translatesAutoresizingMask": true for the root, false otherwise,
         "hugging": P or [horizontal, vertical], "compression": likewise,
         "subviews": [VIEW...]}
  CONSTRAINT: {"item": "id", "attribute": "width", "relation": "==" | "<=" | ">=",
         "toItem": "id" or null, "toAttribute": "width" (default: attribute),
         "multiplier": 1, "constant": 0, "priority": 1000,
         "holder": "id" (default: the items' nearest common ancestor),
         "identifier": "name"}
  Attributes: left right top bottom leading trailing width height centerX
  centerY baseline.
Prints each view's frame, "id  (x y; width height)", indented by depth,
under the name of the picture drawn of that state, and writes into --out:
  layout.png           the tree as laid out
  layout-hidden.png    with --hide: the view collapsed by its height
  layout-detached.png  with --detach: the view taken out of its superview
  layout-restored.png  with --detach: the view put back with its constraints
(--hide brings its view back before --detach runs.) Exit 0 when done, 1 for a
file that cannot be read or used or a picture that cannot be written, 2 for a
bad command line or an --hide/--detach id the file does not have.)HELP";

// Reports `what` about the entry at `where` of `file`; main turns it into one
// line on standard error and exit code 1.
[[noreturn]] void fail(const std::string& file, const std::string& where, const std::string& what) {
  throw std::runtime_error(escapeForDisplay(file) + ": " + where + ": " + what);
}

// The file's bytes, refusing more than kMaxFileBytes.
std::string readDescription(const std::string& file) {
  std::ifstream in(file, std::ios::binary);
  if (!in) {
    throw std::runtime_error(escapeForDisplay(file) +
                             ": cannot open for reading: " + std::strerror(errno));
  }
  std::string text(kMaxFileBytes + 1, '\0');
  in.read(text.data(), std::streamsize(text.size()));
  if (in.bad()) throw std::runtime_error(escapeForDisplay(file) + ": cannot read");
  text.resize(std::size_t(in.gcount()));
  if (text.size() > kMaxFileBytes) {
    throw std::runtime_error(escapeForDisplay(file) + ": larger than 1 MiB, not a layout");
  }
  return text;
}

// The deepest nesting of arrays and objects in `text`, outside strings.
int nestingDepth(const std::string& text) {
  int depth = 0, deepest = 0;
  bool inString = false, escaped = false;
  for (char c : text) {
    if (inString) {
      if (escaped) {
        escaped = false;
      } else if (c == '\\') {
        escaped = true;
      } else if (c == '"') {
        inString = false;
      }
    } else if (c == '"') {
      inString = true;
    } else if (c == '[' || c == '{') {
      deepest = std::max(deepest, ++depth);
    } else if (c == ']' || c == '}') {
      --depth;
    }
  }
  return deepest;
}

// The shortest text that reads back as `value` once rounded to a thousandth
// of a point, without a sign on zero.
std::string formatNumber(double value) {
  if (!std::isfinite(value)) return value != value ? "nan" : value > 0 ? "inf" : "-inf";
  double rounded = std::round(value * 1000) / 1000;
  if (rounded == 0) rounded = 0;
  char buf[400];  // the longest double written out in full fits
  auto [end, ec] = std::to_chars(buf, buf + sizeof buf, rounded, std::chars_format::fixed);
  return ec == std::errc() ? std::string(buf, end) : std::string("?");
}

std::string formatFrame(nimb::Rect r) {
  return "(" + formatNumber(r.origin.x) + " " + formatNumber(r.origin.y) + "; " +
         formatNumber(r.size.width) + " " + formatNumber(r.size.height) + ")";
}

// Reads a description into a view tree with its constraints.
class DescriptionReader {
 public:
  explicit DescriptionReader(std::string file) : file_(std::move(file)) {}

  std::shared_ptr<nimb::View> read(const json& document) {
    if (!document.is_object()) fail(file_, "top level", "must be an object with \"root\"");
    checkKeys(document, "top level", {"root", "constraints", "sizeToSubviews"});
    if (!document.contains("root")) fail(file_, "top level", "no \"root\" view");
    auto root = readView(document["root"], "root", 0);
    if (document.contains("constraints")) {
      const json& list = document["constraints"];
      if (!list.is_array()) fail(file_, "constraints", "must be an array");
      if (list.size() > kMaxConstraints) fail(file_, "constraints", "more than 10000 entries");
      for (std::size_t i = 0; i < list.size(); ++i) {
        readConstraint(list[i], "constraints[" + std::to_string(i) + "]");
      }
    }
    if (document.contains("sizeToSubviews")) {
      if (!document["sizeToSubviews"].is_boolean())
        fail(file_, "sizeToSubviews", "must be true or false");
      sizeToSubviews_ = document["sizeToSubviews"].get<bool>();
    }
    return root;
  }

  bool sizeToSubviews() const { return sizeToSubviews_; }
  // The view with `id`, or null.
  std::shared_ptr<nimb::View> view(const std::string& id) const {
    auto it = ids_.find(id);
    return it == ids_.end() ? nullptr : it->second;
  }

 private:
  void checkKeys(const json& object, const std::string& where,
                 std::initializer_list<const char*> known) {
    for (const auto& [key, value] : object.items()) {
      if (std::none_of(known.begin(), known.end(), [&](const char* k) { return key == k; })) {
        fail(file_, where, "unknown key \"" + escapeForDisplay(key) + "\"");
      }
    }
  }

  double number(const json& value, const std::string& where, const std::string& name, double low,
                double high) {
    if (!value.is_number()) fail(file_, where, "\"" + name + "\" must be a number");
    const double v = value.get<double>();
    if (!(v >= low && v <= high)) {
      fail(file_, where,
           "\"" + name + "\" must be from " + formatNumber(low) + " to " + formatNumber(high));
    }
    return v;
  }

  std::string text(const json& value, const std::string& where, const std::string& name) {
    if (!value.is_string()) fail(file_, where, "\"" + name + "\" must be a string");
    return value.get<std::string>();
  }

  nimb::Color color(const std::string& hex, const std::string& where) {
    const bool shaped = (hex.size() == 7 || hex.size() == 9) && hex[0] == '#' &&
                        std::all_of(hex.begin() + 1, hex.end(), [](char c) {
                          return std::isxdigit(static_cast<unsigned char>(c));
                        });
    if (!shaped) {
      fail(file_, where,
           "\"color\" must be \"#RRGGBB\" or \"#RRGGBBAA\", not \"" + escapeForDisplay(hex) + "\"");
    }
    // The kit reads "#RRGGBB"; the alpha pair is this format's own.
    nimb::Color color = nimb::NimbKit::colorWithHexString(hex.substr(0, 7));
    if (hex.size() == 9) color.alpha = double(std::stoi(hex.substr(7, 2), nullptr, 16)) / 255;
    return color;
  }

  // "hugging" or "compression": one priority for both axes, or [h, v].
  void priorities(const json& value, const std::string& where, const std::string& name,
                  const std::shared_ptr<nimb::View>& view) {
    double axes[2];
    if (value.is_array()) {
      if (value.size() != 2) fail(file_, where, "\"" + name + "\" must be P or [h, v]");
      for (int i = 0; i < 2; ++i) axes[i] = number(value[i], where, name, 1, 1000);
    } else {
      axes[0] = axes[1] = number(value, where, name, 1, 1000);
    }
    for (auto axis : {nimb::LayoutAxis::Horizontal, nimb::LayoutAxis::Vertical}) {
      const auto p = nimb::LayoutPriority(axes[int(axis)]);
      name == "hugging" ? view->setContentHuggingPriority(p, axis)
                        : view->setContentCompressionResistancePriority(p, axis);
    }
  }

  std::shared_ptr<nimb::View> readView(const json& j, const std::string& where, int depth) {
    if (depth > kMaxViewDepth) fail(file_, where, "views nested deeper than 24 levels");
    if (++viewCount_ > kMaxViews) fail(file_, where, "more than 2000 views");
    if (!j.is_object()) fail(file_, where, "a view must be an object");
    checkKeys(j, where,
              {"id", "frame", "color", "image", "translatesAutoresizingMask", "hugging",
               "compression", "subviews"});

    std::shared_ptr<nimb::View> view;
    if (j.contains("image")) {
      const std::string name = text(j["image"], where, "image");
      const fs::path path = fs::path(file_).parent_path() / name;
      std::error_code ec;
      const auto bytes = fs::file_size(path, ec);
      if (!ec && bytes > kMaxImageBytes) {
        fail(file_, where, "\"image\" " + escapeForDisplay(name) + " is larger than 32 MiB");
      }
      auto image = nimb::Image::withContentsOfFile(path.string());
      if (!image) {
        fail(file_, where, "\"image\" " + escapeForDisplay(name) + " is missing or not a picture");
      }
      view = std::make_shared<nimb::ImageView>(std::move(image));
    } else {
      view = std::make_shared<nimb::View>();
    }
    if (j.contains("id")) {
      const std::string id = text(j["id"], where, "id");
      if (id.empty()) fail(file_, where, "\"id\" must not be empty");
      if (!ids_.emplace(id, view).second) {
        fail(file_, where, "the id \"" + escapeForDisplay(id) + "\" is used twice");
      }
      view->setAccessibilityIdentifier(id);
    }
    if (j.contains("frame")) {
      const json& f = j["frame"];
      if (!f.is_array() || f.size() != 4) fail(file_, where, "\"frame\" must be [x, y, w, h]");
      double v[4];
      for (int i = 0; i < 4; ++i) {
        v[i] = number(f[i], where, "frame", i < 2 ? -kMaxMagnitude : 0, kMaxMagnitude);
      }
      view->setFrame({v[0], v[1], v[2], v[3]});
    }
    if (j.contains("color"))
      view->setBackgroundColor(color(text(j["color"], where, "color"), where));
    bool translates = depth == 0;
    if (j.contains("translatesAutoresizingMask")) {
      if (!j["translatesAutoresizingMask"].is_boolean()) {
        fail(file_, where, "\"translatesAutoresizingMask\" must be true or false");
      }
      translates = j["translatesAutoresizingMask"].get<bool>();
    }
    view->setTranslatesAutoresizingMaskIntoConstraints(translates);
    if (j.contains("hugging")) priorities(j["hugging"], where, "hugging", view);
    if (j.contains("compression")) priorities(j["compression"], where, "compression", view);
    if (j.contains("subviews")) {
      const json& list = j["subviews"];
      if (!list.is_array()) fail(file_, where, "\"subviews\" must be an array");
      for (std::size_t i = 0; i < list.size(); ++i) {
        view->addSubview(
            readView(list[i], where + ".subviews[" + std::to_string(i) + "]", depth + 1));
      }
    }
    return view;
  }

  std::shared_ptr<nimb::View> item(const json& value, const std::string& where,
                                   const std::string& name) {
    const std::string id = text(value, where, name);
    auto found = view(id);
    if (!found)
      fail(file_, where, "\"" + name + "\" names no view: \"" + escapeForDisplay(id) + "\"");
    return found;
  }

  nimb::LayoutAttribute attribute(const json& value, const std::string& where,
                                  const std::string& name) {
    const std::string spelled = text(value, where, name);
    for (int a = int(nimb::LayoutAttribute::Left); a <= int(nimb::LayoutAttribute::Baseline); ++a) {
      if (spelled == nimb::layoutAttributeName(nimb::LayoutAttribute(a))) {
        return nimb::LayoutAttribute(a);
      }
    }
    fail(file_, where, "\"" + name + "\" is no attribute: \"" + escapeForDisplay(spelled) + "\"");
  }

  void readConstraint(const json& j, const std::string& where) {
    if (!j.is_object()) fail(file_, where, "a constraint must be an object");
    checkKeys(j, where,
              {"item", "attribute", "relation", "toItem", "toAttribute", "multiplier", "constant",
               "priority", "holder", "identifier"});
    if (!j.contains("item") || !j.contains("attribute")) {
      fail(file_, where, "needs \"item\" and \"attribute\"");
    }
    auto first = item(j["item"], where, "item");
    const auto firstAttribute = attribute(j["attribute"], where, "attribute");
    auto relation = nimb::LayoutRelation::Equal;
    if (j.contains("relation")) {
      const std::string r = text(j["relation"], where, "relation");
      if (r == "<=") {
        relation = nimb::LayoutRelation::LessThanOrEqual;
      } else if (r == ">=") {
        relation = nimb::LayoutRelation::GreaterThanOrEqual;
      } else if (r != "==") {
        fail(file_, where, "\"relation\" must be ==, <= or >=");
      }
    }
    std::shared_ptr<nimb::View> second;
    auto secondAttribute = nimb::LayoutAttribute::NotAnAttribute;
    if (j.contains("toItem") && !j["toItem"].is_null()) {
      second = item(j["toItem"], where, "toItem");
      secondAttribute = j.contains("toAttribute")
                            ? attribute(j["toAttribute"], where, "toAttribute")
                            : firstAttribute;
    } else if (j.contains("toAttribute")) {
      fail(file_, where, "\"toAttribute\" without a \"toItem\"");
    }
    if (second == first && secondAttribute == firstAttribute) {
      fail(file_, where, "relates an attribute of a view to itself");
    }
    const double multiplier =
        j.contains("multiplier")
            ? number(j["multiplier"], where, "multiplier", -kMaxMagnitude, kMaxMagnitude)
            : 1.0;
    const double constant = j.contains("constant") ? number(j["constant"], where, "constant",
                                                            -kMaxMagnitude, kMaxMagnitude)
                                                   : 0.0;
    auto constraint = nimb::LayoutConstraint::constraintWithItem(
        first, firstAttribute, relation, second, secondAttribute, multiplier, constant);
    if (!constraint) {
      fail(file_, where,
           "not a constraint the layout can hold (a position related to a constant alone, a "
           "horizontal attribute related to a vertical one, a size to a position, or a zero "
           "multiplier between positions)");
    }
    if (j.contains("priority")) {
      constraint->setPriority(
          nimb::LayoutPriority(number(j["priority"], where, "priority", 1, 1000)));
    }
    if (j.contains("identifier"))
      constraint->setIdentifier(text(j["identifier"], where, "identifier"));
    if (j.contains("holder")) {
      item(j["holder"], where, "holder")->addConstraint(constraint);
    } else {
      constraint->setActive(true);
    }
  }

  std::string file_;
  std::map<std::string, std::shared_ptr<nimb::View>> ids_;
  std::size_t viewCount_ = 0;
  bool sizeToSubviews_ = false;
};

void printTree(const nimb::View& view, int depth) {
  const std::string& id = view.accessibilityIdentifier();
  std::printf("%*s%s  %s%s\n", depth * 2, "",
              id.empty() ? view.className().c_str() : escapeForDisplay(id).c_str(),
              formatFrame(view.frame()).c_str(), view.isHidden() ? "  hidden" : "");
  for (const auto& subview : view.subviews()) printTree(*subview, depth + 1);
}

struct LayoutOptions {
  std::string file;
  std::string out = ".";
  std::string hide;
  std::string detach;
  double scale = 1;
};

int runLayout(const LayoutOptions& options) {
  const std::string text = readDescription(options.file);
  if (nestingDepth(text) > kMaxJsonNesting) {
    throw std::runtime_error(escapeForDisplay(options.file) + ": nested deeper than 64 levels");
  }
  json document;
  try {
    document = json::parse(text);
  } catch (const json::exception& e) {
    throw std::runtime_error(escapeForDisplay(options.file) + ": not JSON: " + e.what());
  }
  DescriptionReader reader(options.file);
  auto root = reader.read(document);
  document = json();

  auto named = [&](const std::string& id, const char* option) {
    auto view = reader.view(id);
    if (!view) {
      throw UsageError(std::string(option) + ": " + escapeForDisplay(options.file) +
                       " has no view \"" + escapeForDisplay(id) + "\"");
    }
    return view;
  };
  std::shared_ptr<nimb::View> hidden =
      options.hide.empty() ? nullptr : named(options.hide, "--hide");
  std::shared_ptr<nimb::View> detached =
      options.detach.empty() ? nullptr : named(options.detach, "--detach");
  if (detached == root) throw UsageError("--detach: the root has no superview to leave");

  std::error_code ec;
  fs::create_directories(options.out, ec);
  if (ec) {
    throw std::runtime_error(escapeForDisplay(options.out) +
                             ": cannot make the directory: " + ec.message());
  }

  auto layOut = [&] {
    root->layoutIfNeeded();
    if (reader.sizeToSubviews()) {
      nimb::NimbKit::ALView_SizeToSubviews(root);
      root->layoutIfNeeded();  // the subviews of the resized root
    }
  };
  auto show = [&](const char* name) {
    auto image = nimb::ViewRenderer::imageOfView(*root, options.scale);
    if (!image) {
      throw std::runtime_error(escapeForDisplay(options.file) + ": the root's size " +
                               formatFrame(root->frame()) + " cannot be drawn");
    }
    auto png = image->pngRepresentation();
    if (!png) throw std::runtime_error(std::string(name) + ": cannot encode the picture");
    const std::string path = (fs::path(options.out) / name).string();
    if (auto why = writeUserFile(path, *png); !why.empty()) {
      throw std::runtime_error(escapeForDisplay(path) + ": cannot write (" + why + ")");
    }
    std::printf("[%s]\n", name);
    printTree(*root, 0);
  };

  layOut();
  show("layout.png");
  if (hidden) {
    nimb::NimbKit::ALView_hideByHeight(hidden, true);
    layOut();
    show("layout-hidden.png");
    if (detached) {
      nimb::NimbKit::ALView_hideByHeight(hidden, false);
      layOut();
    }
  }
  if (detached) {
    nimb::NimbConstraintCacheManager cache;
    const std::string key = "detach:" + options.detach;
    cache.cacheViewConstraints(detached, key);
    detached->removeFromSuperview();
    layOut();
    show("layout-detached.png");
    if (!cache.restoreViewConstraintsToSuperView(detached, key)) {
      throw std::runtime_error("--detach: the view could not be put back");
    }
    layOut();
    show("layout-restored.png");
  }
  return std::fflush(stdout) == 0 ? kOk : kNotFound;
}

}  // namespace

void addLayoutCommand(CLI::App& app, Action& selected) {
  auto options = std::make_shared<LayoutOptions>();
  auto* sub = app.add_subcommand(
      "layout", "Lay out the views of a JSON description, print their frames, draw them to PNG");
  sub->add_option("FILE", options->file, "the description (JSON, at most 1 MiB)")->required();
  sub->add_option("--out", options->out, "the directory for the pictures (default: .)");
  sub->add_option("--hide", options->hide, "collapse the view with this id by its height");
  sub->add_option("--detach", options->detach,
                  "take the view with this id out of its superview and put it back");
  sub->add_option("--scale", options->scale, "pixels per point of the pictures (default: 1)")
      ->check(CLI::Range(0.25, 8.0));
  sub->footer(kHelpFooter);
  onSelected(sub, selected, [options] { return runLayout(*options); });
}

}  // namespace nimbkit
