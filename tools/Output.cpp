#include "tools/Output.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <map>
#include <memory>

namespace ostrand_tool {

namespace {

std::string orDash(const std::string& text) { return text.empty() ? "-" : text; }

// Width in characters, not bytes, so that names with UTF-8 line up.
size_t width(const std::string& text)
{
    size_t count = 0;
    for (unsigned char c : text) {
        if ((c & 0xC0) != 0x80) {
            ++count;
        }
    }
    return count;
}

std::vector<std::string> splitPath(const std::string& path)
{
    std::vector<std::string> parts;
    size_t start = 0;
    for (;;) {
        size_t bang = path.find('!', start);
        parts.push_back(path.substr(start, bang == std::string::npos ? std::string::npos : bang - start));
        if (bang == std::string::npos) {
            return parts;
        }
        start = bang + 1;
    }
}

struct Node {
    std::string segment;
    std::vector<const Row*> records;
    std::vector<std::unique_ptr<Node>> children;

    Node* child(const std::string& name)
    {
        for (auto& c : children) {
            if (c->segment == name) {
                return c.get();
            }
        }
        children.push_back(std::make_unique<Node>());
        children.back()->segment = name;
        return children.back().get();
    }
};

std::string label(const Node& node)
{
    std::string text = node.segment.empty() ? "(no location)" : node.segment;
    for (const Row* row : node.records) {
        text += "  [" + orDash(row->get("DeviceName"));
        const std::string& cls = row->get("DeviceClass");
        if (!cls.empty()) {
            text += ", " + cls;
        }
        const std::string& descriptor = row->get("DeviceDescriptor");
        if (!descriptor.empty()) {
            text += ", " + descriptor;
        }
        text += "]";
    }
    return text;
}

void draw(std::ostream& out, const Node& node, const std::string& indent)
{
    for (size_t i = 0; i < node.children.size(); ++i) {
        bool last = i + 1 == node.children.size();
        out << indent << (last ? "└── " : "├── ") << label(*node.children[i]) << "\n";
        draw(out, *node.children[i], indent + (last ? "    " : "│   "));
    }
}

} // namespace

void printTable(std::ostream& out, const std::vector<Row>& rows)
{
    const std::vector<std::string> headings = {"NAME", "CLASS", "LOCATION", "PARENT LOCATION", "DESCRIPTION"};
    const std::vector<std::string> keys = {"DeviceName", "DeviceClass", "DeviceLocation", "DeviceParentLocation",
                                           "DeviceDescription"};
    std::vector<size_t> widths;
    for (const auto& h : headings) {
        widths.push_back(width(h));
    }
    for (const auto& row : rows) {
        for (size_t i = 0; i < keys.size(); ++i) {
            widths[i] = std::max(widths[i], width(orDash(row.get(keys[i]))));
        }
    }
    auto line = [&](const std::vector<std::string>& cells) {
        std::string text;
        for (size_t i = 0; i < cells.size(); ++i) {
            text += cells[i];
            if (i + 1 < cells.size()) {
                text += std::string(widths[i] - width(cells[i]) + 2, ' ');
            }
        }
        out << text << "\n";
    };
    line(headings);
    for (const auto& row : rows) {
        std::vector<std::string> cells;
        for (const auto& key : keys) {
            cells.push_back(orDash(row.get(key)));
        }
        line(cells);
    }
}

void printJson(std::ostream& out, const std::vector<Row>& rows)
{
    nlohmann::ordered_json array = nlohmann::ordered_json::array();
    for (const auto& row : rows) {
        nlohmann::ordered_json object;
        object["finder"] = row.finder;
        for (size_t i = 0; i < kKeys.size(); ++i) {
            object[kKeys[i]] = row.values[i];
        }
        object["value"] = row.value;
        array.push_back(object);
    }
    // Device text is not always UTF-8; replace what is not.
    out << array.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) << "\n";
}

void printTree(std::ostream& out, const std::vector<Row>& rows)
{
    Node root;
    root.segment = "System Board";
    for (const auto& row : rows) {
        std::vector<std::string> path = splitPath(row.get("DeviceParentLocation"));
        Node* node = &root;
        size_t first = 0;
        if (!path.empty() && path[0] == "System Board") {
            first = 1;
        } else if (path.size() == 1 && path[0].empty()) {
            first = 1; // no parent: hangs from the root
        }
        for (size_t i = first; i < path.size(); ++i) {
            node = node->child(path[i]);
        }
        node->child(row.get("DeviceLocation"))->records.push_back(&row);
    }
    out << label(root) << "\n";
    draw(out, root, "");
}

} // namespace ostrand_tool
