#pragma once
// The tracker's Kalman filter ("kalman_cv"): not a trained network but the exact arithmetic of a
// constant-velocity Kalman filter's measurement update, as a network so that it runs on the
// plug-in's backend like every other step.
//
// State per track: x = (px, py, vx, vy); per axis a the covariance is the symmetric 2 x 2
// [[p_a, c_a], [c_a, v_a]] (position variance, position-velocity covariance, velocity variance);
// the axes are independent. The tracker predicts the state itself, x_pos += x_vel once a frame,
// and runs this network only when a track matches a reading z, with the state already predicted.
// The network first predicts the covariance by one step of the same model (F = [[1, 1], [0, 1]],
// dt = 1) with white-acceleration process noise of intensity q, Q = q [[1/4, 1/2], [1/2, 1]]:
//   p- = p + 2c + v + q/4      c- = c + v + q/2      v- = v + q
// then updates with the measurement noise r_a of the axis:
//   y   = z - H x                 (innovation, H the 2 x 4 measurement matrix)
//   s   = p- + r                  (innovation variance)
//   k_p = p- / s,  k_v = c- / s   (gain)
//   x_pos' = x_pos + k_p y,  x_vel' = x_vel + k_v y
//   p' = (1 - k_p) p-,  c' = (1 - k_p) c-,  v' = v- - k_v c-
// all elementwise over the two axes. The gain takes H to pick the positions (the tracker's
// matrix, 1 0 0 0 / 0 1 0 0); H enters only the innovation. A track that went unmatched for some
// frames gets the covariance growth of one step at its next match, not one per frame missed.
//
//   inputs  x [4,1], z [2,1], pos_var [2,1], pos_vel_covar [2,1], vel_var [2,1], q [1], r [2,1],
//           H [2,4], all F32
//   outputs x_out [4,1], pos_var_out [2,1], pos_vel_covar_out [2,1], vel_var_out [2,1], F32
#include <filesystem>

#include <onnx/onnx_pb.h>

namespace qpkg {

constexpr const char* kKalmanId = "kalman_cv";

onnx::ModelProto buildKalmanFilter();

// Writes <model folder>/kalman_cv.onnx.
void writeKalmanFilter(const std::filesystem::path& modelFolder);

}  // namespace qpkg
