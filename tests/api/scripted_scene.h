/* scripted_scene.h - what C programs need of the scripted accelerator: one network that sees the
 * same object in every frame, set up before main. See scripted_scene.cpp. */
#ifndef TESTS_API_SCRIPTED_SCENE_H
#define TESTS_API_SCRIPTED_SCENE_H

#include "olvex_det.h"

#ifdef __cplusplus
extern "C" {
#endif

/* The next of three frames; 0 when they have all been given. */
int next_frame(const InputAttr_t* format, ALGO_Input_t* frame);

/* Violations of the platform's contract so far, devices and channels that are up. */
int scene_violations(void);
int scene_leftovers(void);

#ifdef __cplusplus
}
#endif

#endif /* TESTS_API_SCRIPTED_SCENE_H */
