#ifndef KAB_TESTS_SUPPORT_FAULT_SHIM_H
#define KAB_TESTS_SUPPORT_FAULT_SHIM_H

/* Faults in a test's own process: see fault_shim.c for what a plan says. Link kab_test_faults. */

#ifdef __cplusplus
extern "C" {
#endif

/** Forgets the former plan, counts from 0 again and follows this one; null or "" lets every call pass. */
void KabFaultPlan(const char* plan, const char* path);

/** How often a call was made since the plan was set. */
unsigned long KabFaultCalls(const char* call);

#ifdef __cplusplus
}
#endif

#endif
