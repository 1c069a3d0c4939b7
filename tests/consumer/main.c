#include <qorv/qorv.h>
#include <stdio.h>

int main(void) {
  QorvInstance* inst = NULL;
  const double quarterTurn[9] = {0, -1, 0, 1, 0, 0, 0, 0, 1};
  float p[3] = {1.0f, 0.0f, 0.0f};
  if (QorvCreateInstance(&inst) != QORV_OK) return 1;
  QorvRotatePoints(inst, quarterTurn, p, p, 1);
  QorvDestroyInstance(inst);
  printf("qorv %s: (%g, %g, %g)\n", QorvVersion(), p[0], p[1], p[2]);
  return (p[0] == 0.0f && p[1] == 1.0f && p[2] == 0.0f) ? 0 : 2;
}
