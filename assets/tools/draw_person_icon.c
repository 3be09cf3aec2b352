/* Draws images/icon-person-person.png: a person's head and shoulders in black on a
 * transparent 32 x 32 square. Only the shape's alpha matters, since the extension tints
 * the icon before drawing it.
 *
 *   cc -O2 tools/draw_person_icon.c $(pkg-config --cflags --libs cairo) -lm -o /tmp/icon
 *   /tmp/icon images/icon-person-person.png
 */
#include <cairo.h>
#include <math.h>
#include <stdio.h>

int main(int argc, char** argv) {
  const char* out = argc > 1 ? argv[1] : "icon-person-person.png";
  cairo_surface_t* surface = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, 32, 32);
  cairo_t* cr = cairo_create(surface);
  cairo_set_source_rgba(cr, 0, 0, 0, 1);

  /* head */
  cairo_arc(cr, 16, 10, 6.5, 0, 2 * M_PI);
  cairo_fill(cr);

  /* shoulders: a dome whose flat base sits on the bottom edge */
  cairo_move_to(cr, 4, 30);
  cairo_curve_to(cr, 4, 22, 9, 18.5, 16, 18.5);
  cairo_curve_to(cr, 23, 18.5, 28, 22, 28, 30);
  cairo_close_path(cr);
  cairo_fill(cr);

  cairo_destroy(cr);
  cairo_status_t status = cairo_surface_write_to_png(surface, out);
  cairo_surface_destroy(surface);
  if (status != CAIRO_STATUS_SUCCESS) {
    fprintf(stderr, "cannot write %s: %s\n", out, cairo_status_to_string(status));
    return 1;
  }
  return 0;
}
