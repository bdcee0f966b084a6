#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace NEUtils {

// The first halves of renames, until their second halves come or are given up.
class MovePairs {
public:
    struct Move {
        std::uint32_t cookie = 0;
        std::string path;
        bool isDirectory = false;
        std::size_t record = 0;  // the number of its record
        std::int64_t sinceNs = 0;
    };

    [[nodiscard]] bool IsEmpty() const { return moves_.empty(); }
    void Add(Move move) { moves_.push_back(std::move(move)); }

    // The first half to a second one.
    std::optional<Move> Take(std::uint32_t cookie)
    {
        return TakeIf([cookie](const Move& move) { return move.cookie == cookie; });
    }

    // The oldest one that meets a condition.
    template <typename Condition>
    std::optional<Move> TakeIf(Condition condition)
    {
        for (auto move = moves_.begin(); move != moves_.end(); ++move) {
            if (condition(*move)) {
                std::optional<Move> taken = std::move(*move);
                moves_.erase(move);
                return taken;
            }
        }
        return std::nullopt;
    }

private:
    std::vector<Move> moves_;
};

}  // namespace NEUtils
