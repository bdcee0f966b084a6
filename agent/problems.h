#pragma once

#include <string>
#include <utility>
#include <vector>

// What is not well: sentences, each with a key by which it is known while its figures change.
//
// Threads  one.
class Problems {
public:
    struct Problem {
        std::string key;
        std::string text;
    };

    void Add(const std::string& key, const std::string& text) { list_.push_back({key, text}); }
    void AddIf(bool isOne, const std::string& key, const std::string& text)
    {
        if (isOne) {
            Add(key, text);
        }
    }
    const std::vector<Problem>& GetList() const { return list_; }

private:
    std::vector<Problem> list_;
};
