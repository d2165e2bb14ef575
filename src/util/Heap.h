#pragma once

namespace velo::ssoService {

/// Lets the C library keep little memory that nobody uses: the threads share one heap, where each of its own costs a
/// megabyte, and what one large request took goes back when it is done, where otherwise tens of megabytes would stay
/// for the next. To be called before any thread is started.
void limitHeap();

}  // namespace velo::ssoService
