// The exported functions. They hold no logic: each hands its arguments to the one
// operation that answers it.
#include "orvexeng.h"
#include "support/orvex_log.h"

int orvex_register_log_cb(orvex_log_cb callback) {
  return ORVEX_LOGGER::GetInstance()->RegisterLogCallback(callback) == ORVEX_OK
             ? ORVEX_OK
             : ORVEX_INVALID_PARAMETER;
}
