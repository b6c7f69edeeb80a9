// SPDX-License-Identifier: MIT
// The ABI that host programs are compiled against: sizes and offsets of every public record,
// checked by the compiler. Generates no code.
#include <common/buffer.h>
#include <common/dmn_serv.h>
#include <common/md5.h>
#include <common/self_dog.h>
#include <common/self_fifo.h>
#include <common/self_list.h>
#include <common/self_log.h>
#include <common/sha256.h>
#include <common/spinlock.h>

#include <cstddef>
#include <sys/un.h>
#include <type_traits>

template <typename tEnum, typename tWord>
constexpr bool gicIsWord = std::is_same_v<std::underlying_type_t<tEnum>, tWord>;

static_assert(gicIsWord<eLogLevl, uint32_t> && gicIsWord<eLogRunMod, uint32_t>);
static_assert(gicIsWord<eLogFileMod, uint32_t> && gicIsWord<eLogSwitch, uint32_t>);
static_assert(sizeof(eLogErrNum) == 4 && ERR_LOG_PARM_CONT == 40960 && ERR_LOG_MAX == 40961);
static_assert(sizeof(eDmnServErrVal) == 4 && sizeof(eFeddogErrVal) == 4);
static_assert(ERR_CFG_SETING_LEN_DMN == 19 && ERR_MAX_DMN == 4112);
static_assert(ERR_CFG_SETING_LEN_DOG == 19 && ERR_MAX_DOG == 4112);

// The same on every processor.
static_assert(sizeof(tLogCfg) == 276 && offsetof(tLogCfg, saveLogPath) == 20);
static_assert(sizeof(tDmnServCfg) == 256);
static_assert(sizeof(tFeddogCfg) == 328 && offsetof(tFeddogCfg, feddogNme) == 8 &&
              offsetof(tFeddogCfg, txFeddogHtDmNme) == 72);
static_assert(sizeof(tWthdogFed) == 5 && alignof(tWthdogFed) == 1 &&
              offsetof(tWthdogFed, nameLen) == 4 && offsetof(tWthdogFed, name) == 5);
static_assert(sizeof(spinlock_t) == 4);
static_assert(sizeof(md5_ctx) == 156 && offsetof(md5_ctx, total) == 16 &&
              offsetof(md5_ctx, buflen) == 24 && offsetof(md5_ctx, buffer) == 28);
static_assert(offsetof(sha256_ctx, total) == 32 && offsetof(sha256_ctx, buflen) == 40);
static_assert(sizeof(sockaddr_un) == 110);
static_assert(offsetof(tClitNetCon, hnode) == 0, "a node's address is its record's");

// The 32-bit target.
static_assert(sizeof(void *) != 4 ||
              (sizeof(sha256_ctx) == 172 && offsetof(sha256_ctx, buffer) == 44));
static_assert(sizeof(void *) != 4 || (sizeof(list_head) == 8 && offsetof(list_head, prev) == 4));
static_assert(sizeof(void *) != 4 || (sizeof(tClitNetCon) == 16 && offsetof(tClitNetCon, fd) == 8 &&
                                      offsetof(tClitNetCon, pClitEt) == 12));
static_assert(sizeof(void *) != 4 || (sizeof(buffer_t) == 12 && offsetof(buffer_t, size) == 4 &&
                                      offsetof(buffer_t, used) == 8));
static_assert(sizeof(void *) != 4 ||
              (sizeof(tFifo) == 24 + sizeof(pthread_rwlock_t) && offsetof(tFifo, Counter) == 12 &&
               offsetof(tFifo, Buff) == 20 && offsetof(tFifo, fifoRwLk) == 24));
#ifdef __arm__
static_assert(std::is_unsigned_v<char>, "xorCheckSum() gives 0 to 255");
static_assert(sizeof(pthread_rwlock_t) == 32);
#endif
