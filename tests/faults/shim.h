// The n-th call that this thread makes from here on of those that shim.c lists fails.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

void fault_arm(int n);
// 0: it has failed.
int fault_disarm(void);

#ifdef __cplusplus
}
#endif
