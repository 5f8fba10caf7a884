// Templates of cache_manager.h.
#pragma once

#include <optional>

#include <goods/cache_manager.h>

namespace goods {

template <std::invocable<reader&> Work>
std::invoke_result_t<Work&, reader&> cache_manager::read(Work&& work) {
  read_round round(*this);
  while (true) {
    try {
      if constexpr (std::is_void_v<std::invoke_result_t<Work&, reader&>>) {
        work(round.get());
        if (round.is_consistent()) return;
      } else {
        auto result = work(round.get());
        if (round.is_consistent()) return result;
      }
    } catch (const error_info&) {
      if (round.is_consistent()) throw;
    }
    round.prepare_retry();
  }
}

template <std::invocable Work>
std::invoke_result_t<Work&> cache_manager::atomically(Work&& work) {
  for (int attempt = 0;; ++attempt) {
    call_transaction call(*this);
    try {
      if constexpr (std::is_void_v<std::invoke_result_t<Work&>>) {
        work();
        call.commit();
        return;
      } else {
        auto result = work();
        call.commit();
        return result;
      }
    } catch (const error_info& error) {
      if (error.code() != error_code::deadlock || !call.roll_back_and_retry(attempt)) throw;
    }
  }
}

}  // namespace goods
