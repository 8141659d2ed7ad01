/* The work of the sips stand-in (see sips): PNG in, resized with cairo's bilinear filter, PNG
 * out with a pHYs chunk for the resolution; or the query form. Built on first use. */
#include <cairo.h>
#include <math.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static uint32_t crc(const unsigned char *p, size_t n) {
    uint32_t c = 0xFFFFFFFFu;
    for (size_t i = 0; i < n; ++i) {
        c ^= p[i];
        for (int k = 0; k < 8; ++k) c = (c & 1) ? 0xEDB88320u ^ (c >> 1) : c >> 1;
    }
    return c ^ 0xFFFFFFFFu;
}

typedef struct { unsigned char *data; size_t size, capacity; } Buffer;

static cairo_status_t append(void *closure, const unsigned char *data, unsigned int length) {
    Buffer *b = closure;
    if (b->size + length > b->capacity) {
        b->capacity = (b->size + length) * 2;
        b->data = realloc(b->data, b->capacity);
    }
    memcpy(b->data + b->size, data, length);
    b->size += length;
    return CAIRO_STATUS_SUCCESS;
}

static void put32(unsigned char *p, uint32_t v) {
    p[0] = v >> 24; p[1] = v >> 16; p[2] = v >> 8; p[3] = v;
}

/* dpi recorded in a PNG's pHYs chunk, 72 when there is none. */
static double read_dpi(const char *path, int vertical) {
    FILE *f = fopen(path, "rb");
    unsigned char head[8], chunk[8];
    double dpi = 72;
    if (!f || fread(head, 1, 8, f) != 8) { if (f) fclose(f); return dpi; }
    while (fread(chunk, 1, 8, f) == 8) {
        uint32_t length = (uint32_t)chunk[0] << 24 | chunk[1] << 16 | chunk[2] << 8 | chunk[3];
        if (memcmp(chunk + 4, "pHYs", 4) == 0 && length == 9) {
            unsigned char body[9];
            if (fread(body, 1, 9, f) == 9 && body[8] == 1) {
                const unsigned char *p = body + (vertical ? 4 : 0);
                dpi = ((uint32_t)p[0] << 24 | p[1] << 16 | p[2] << 8 | p[3]) * 0.0254;
            }
            break;
        }
        if (memcmp(chunk + 4, "IDAT", 4) == 0) break;
        fseek(f, (long)length + 4, SEEK_CUR);
    }
    fclose(f);
    return dpi;
}

/* argv: in out height width dpiX dpiY  |  -g in */
int main(int argc, char **argv) {
    if (argc == 3 && strcmp(argv[1], "-g") == 0) {
        cairo_surface_t *s = cairo_image_surface_create_from_png(argv[2]);
        if (cairo_surface_status(s) != CAIRO_STATUS_SUCCESS) return 1;
        printf("%d %d %.3f %.3f\n", cairo_image_surface_get_width(s),
               cairo_image_surface_get_height(s), read_dpi(argv[2], 0), read_dpi(argv[2], 1));
        return 0;
    }
    if (argc != 7) return 2;
    cairo_surface_t *in = cairo_image_surface_create_from_png(argv[1]);
    if (cairo_surface_status(in) != CAIRO_STATUS_SUCCESS) return 1;
    int w = cairo_image_surface_get_width(in), h = cairo_image_surface_get_height(in);
    int height = atoi(argv[3]) > 0 ? atoi(argv[3]) : h, width = atoi(argv[4]) > 0 ? atoi(argv[4]) : w;
    double dpiX = atof(argv[5]) > 0 ? atof(argv[5]) : read_dpi(argv[1], 0);
    double dpiY = atof(argv[6]) > 0 ? atof(argv[6]) : read_dpi(argv[1], 1);
    cairo_surface_t *out = cairo_image_surface_create(CAIRO_FORMAT_ARGB32, width, height);
    cairo_t *cr = cairo_create(out);
    cairo_scale(cr, (double)width / w, (double)height / h);
    cairo_set_source_surface(cr, in, 0, 0);
    cairo_pattern_set_filter(cairo_get_source(cr), CAIRO_FILTER_BILINEAR);
    cairo_pattern_set_extend(cairo_get_source(cr), CAIRO_EXTEND_PAD);
    cairo_paint(cr);
    cairo_destroy(cr);
    Buffer png = {0};
    if (cairo_surface_write_to_png_stream(out, append, &png) != CAIRO_STATUS_SUCCESS) return 1;
    unsigned char phys[21];
    put32(phys, 9);
    memcpy(phys + 4, "pHYs", 4);
    put32(phys + 8, (uint32_t)lround(dpiX / 0.0254));
    put32(phys + 12, (uint32_t)lround(dpiY / 0.0254));
    phys[16] = 1;
    put32(phys + 17, crc(phys + 4, 13));
    char temporary[4096];
    snprintf(temporary, sizeof temporary, "%s.sips-tmp", argv[2]);
    FILE *f = fopen(temporary, "wb");
    if (!f) return 1;
    const size_t header = 8 + 25;
    fwrite(png.data, 1, header, f);
    fwrite(phys, 1, sizeof phys, f);
    fwrite(png.data + header, 1, png.size - header, f);
    if (fclose(f) != 0 || rename(temporary, argv[2]) != 0) return 1;
    return 0;
}
