// Settings and state of the maximisation.
#pragma once

namespace tarvex {

struct maximise_module {
    int search_type = 6;         // 1 AI-REML, 2 simplex, 3 Powell, 4 second Powell, 5 (PX-)EM, 6 (PX-)EM then AI-REML,
                                 // 7 AI-REML in a trust region
    int pxem_its = 3;            // rounds of (PX-)EM in one call
    int aireml_its = 0;          // AI-REML iterates; 0: the driver computes the limit
    double aiconv_like = 0.0005; // AI-REML: change in log L that counts as converged
    double aiconv_norm = 0.0001; // AI-REML: gradient norm that counts as converged
    double emconv_like = 0.000001; // (PX-)EM: change in log L that counts as converged
    int modify_chol = 2;           // how the average information matrix is made safe
    int ncycle = 1;                // cycles of EM and AI-REML
    int powell_its = 0;
    double powell_scale = 0.0;
    int simplx_its = 0;
    double simplx_conv = 0.0;
    double simplx_step = 0.0;
    bool limit_given = false; // the user set the limit of AI-REML iterates
    bool converged = false;
    // Last three accepted iterates, oldest first: change in log L (column 1), relative parameter change, gradient norm,
    // Newton decrement (column 4).
    double cchanges[3][4] = {};
};
inline maximise_module maximise;

} // namespace tarvex
