// Templates of cache_manager.h.
#pragma once

#include <type_traits>

#include <goods/cache_manager.h>

namespace goods {

namespace internal {

// Whether repeating may help after the `attempt`th attempt, the first being 0, ended in `error`;
// has waited for a short random time then, so that two that met in a deadlock do not meet again.
GOODS_API bool pause_before_repeating(const error_info& error, int attempt);

template <class Work>
std::invoke_result_t<Work&, reader&> read_until_consistent(cache_manager* session, Work& work) {
  read_round round(session);
  while (true) {
    try {
      if constexpr (std::is_void_v<std::invoke_result_t<Work&, reader&>>) {
        work(round.get());
        if (round.is_consistent()) return;
      } else {
        auto result = work(round.get());
        if (round.is_consistent()) return result;
      }
    } catch (...) {
      // What looks damaged, missing or wrong in any way may be two states mixed.
      if (round.is_consistent()) throw;
    }
    round.prepare_retry();
  }
}

}  // namespace internal

template <std::invocable<reader&> Work>
std::invoke_result_t<Work&, reader&> cache_manager::read(Work&& work) {
  return internal::read_until_consistent(this, work);
}

template <std::invocable<reader&> Work>
std::invoke_result_t<Work&, reader&> read_here(Work&& work) {
  return internal::read_until_consistent(cache_manager::current(), work);
}

template <std::invocable Work>
std::invoke_result_t<Work&> repeat_here(Work&& work) {
  const auto in_transaction = [] {
    const cache_manager* const session = cache_manager::current();
    return session != nullptr && session->in_transaction();
  };
  if (in_transaction()) return work();
  for (int attempt = 0;; ++attempt) {
    try {
      return work();
    } catch (const error_info& error) {
      // An access that the caller has open keeps a transaction of its own.
      if (in_transaction() || !internal::pause_before_repeating(error, attempt)) throw;
    }
  }
}

template <std::invocable Work>
std::invoke_result_t<Work&> cache_manager::outside_transaction(Work&& work) {
  const pause without(*this);
  return work();
}

template <std::invocable Work>
std::invoke_result_t<Work&> cache_manager::atomically(Work&& work, caller whose) {
  for (int attempt = 0;; ++attempt) {
    call_transaction call(*this, whose);
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
      if (!call.roll_back_and_retry(error, attempt)) throw;
    }
  }
}

}  // namespace goods
