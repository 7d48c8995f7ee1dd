// A tree of files as a nested literal: path -> text.
#pragma once

#include <string>
#include <vector>

// A path that ends in "/" is a directory; missing parents are made.
struct tree_file {
    std::string path;  // relative to the root of the tree
    std::string text{};
};
using file_tree = std::vector<tree_file>;

// Writes the tree under `root`, over files that are there. Throws std::system_error.
void write_file_tree(const std::string& root, const file_tree& tree);

// Makes directory `path` and its missing parents. Throws std::system_error.
void make_directories(const std::string& path);

// Writes one file in one piece, mode 0644; through no link. Throws std::system_error.
void write_text_file(const std::string& path, const std::string& text);
