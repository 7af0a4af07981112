// SPDX-License-Identifier: Apache-2.0
/* checks.h - the checks, in the order in which they are made. Each reports at least one line. */
#ifndef PLATFORM_CHECK_CHECKS_H
#define PLATFORM_CHECK_CHECKS_H

#include "session.h"

/* check_setup.c. The first two return 0 where nothing more can be checked. */
int check_model(struct session* session); /* before there is a device */
int check_device(struct session* session);
void check_refused_models(struct session* session);

/* check_description.c. Returns 0 where the outputs cannot be read by it. */
int check_description(struct session* session);

/* check_outputs.c */
void check_lending(struct session* session);
int check_first_invocation(struct session* session); /* 0: there are no outputs to look at */

/* check_values.c, of the probe network */
void check_values(struct session* session);

/* check_frames.c */
void check_frames(struct session* session);

/* check_channels.c */
void check_two_channels(struct session* session);

/* check_lives.c */
void check_teardown(struct session* session);
void check_cycles(struct session* session);

#endif /* PLATFORM_CHECK_CHECKS_H */
