#!/usr/bin/python3
"""Writes the invoice fixtures of the invoice reader's tests with ReportLab (python3-reportlab), a PDF
producer independent of Qt's, so the reader is not tuned to one writer's text order.

Run from this folder: ./make_invoices.py  (the output is deterministic: invariant mode, fixed dates)."""

from reportlab import rl_config
from reportlab.lib.pagesizes import A4
from reportlab.lib.units import mm
from reportlab.pdfgen import canvas
from reportlab.lib import pdfencrypt

rl_config.invariant = 1

ROWS = [
    # activity, share of the week, day, duration, rate, amount
    ("ED-12 Review release notes", "18%", "23 Mar", "2:15:00", "$80.00", "$180.00"),
    ("ED-7 Sprint planning", "8%", "23 Mar", "1:00:00", "$80.00", "$80.00"),
    ("ED-101 Customer call about the 2.4 upgrade", "12%", "24 Mar", "1:30:00", "$80.00", "$120.00"),
    ("ED-12 Review release notes", "20%", "25 Mar", "2:30:00", "$80.00", "$200.00"),
    ("ED-9 Fix login time-out", "42%", "26 Mar", "5:15:00", "$80.00", "$420.00"),
]
COLUMNS = [18 * mm, 100 * mm, 122 * mm, 140 * mm, 160 * mm, 180 * mm]


def header(pdf, page, pages):
    pdf.setFont("Helvetica-Bold", 18)
    pdf.drawString(18 * mm, 275 * mm, "Invoice #2026-13")
    pdf.setFont("Helvetica", 10)
    pdf.drawString(18 * mm, 265 * mm, "Issue date: 27 Mar 2026")
    pdf.drawString(18 * mm, 260 * mm, "Due date: 10 Apr 2026")
    pdf.drawString(18 * mm, 255 * mm, "Billed to: Example Ltd, billing@example.com")
    pdf.drawString(18 * mm, 250 * mm, "Date range: 23 Mar 2026 - 29 Mar 2026")
    pdf.drawRightString(192 * mm, 12 * mm, f"{page} / {pages}")
    pdf.setFont("Helvetica-Bold", 9)
    for x, title in zip(COLUMNS, ["Activity", "Project share", "Start date", "Total hours", "Hourly rate", "Amount"]):
        pdf.drawString(x, 238 * mm, title)
    pdf.setFont("Helvetica", 9)


def row(pdf, y, cells):
    for x, cell in zip(COLUMNS, cells):
        pdf.drawString(x, y, cell)


def invoice(path, rows, total, amount, per_page=len(ROWS), encrypt=None):
    pdf = canvas.Canvas(path, pagesize=A4, encrypt=encrypt)
    pdf.setTitle("Weekly invoice")
    pages = (len(rows) + per_page - 1) // per_page
    for page in range(pages):
        header(pdf, page + 1, pages)
        y = 230 * mm
        for cells in rows[page * per_page:(page + 1) * per_page]:
            row(pdf, y, cells)
            y -= 6 * mm
        if page == pages - 1:
            pdf.setFont("Helvetica-Bold", 9)
            pdf.drawString(COLUMNS[0], y - 4 * mm, "Total")
            pdf.drawString(COLUMNS[3], y - 4 * mm, total)
            pdf.drawString(COLUMNS[5], y - 4 * mm, amount)
            pdf.setFont("Helvetica", 8)
            pdf.drawString(COLUMNS[0], 20 * mm, "Created with Stintwatch")
        pdf.showPage()
    pdf.save()


invoice("week.pdf", ROWS, "12:30:00", "$1,000.00")
# The same rows over three pages, page numbers and repeated headers between them.
invoice("week-pages.pdf", ROWS, "12:30:00", "$1,000.00", per_page=2)
# A long month for the benchmark: 20 pages of 30 rows.
long_rows = []
for index in range(600):
    seconds = 600 + (index * 37) % 3000
    long_rows.append((f"ED-{index % 30 + 1} Task {index % 60}", f"{index % 9}%", f"{index % 28 + 1} Mar",
                      f"{seconds // 3600}:{seconds // 60 % 60:02d}:{seconds % 60:02d}", "$80.00",
                      f"${seconds * 80 / 3600:,.2f}"))
long_total = sum(600 + (index * 37) % 3000 for index in range(600))
invoice("month-20-pages.pdf", long_rows,
        f"{long_total // 3600}:{long_total // 60 % 60:02d}:{long_total % 60:02d}",
        f"${sum(float(cells[5][1:].replace(',', '')) for cells in long_rows):,.2f}", per_page=30)
# One row misread: nothing adds up to the total.
invoice("mismatch.pdf", ROWS, "12:31:00", "$1,000.00")
# Opening needs a password.
invoice("encrypted.pdf", ROWS, "12:30:00", "$1,000.00",
        encrypt=pdfencrypt.StandardEncryption("secret", ownerPassword="owner", strength=128))

# A scan: shapes only, no text layer.
scan = canvas.Canvas("scanned.pdf", pagesize=A4)
scan.rect(20 * mm, 200 * mm, 170 * mm, 60 * mm, fill=1)
scan.showPage()
scan.save()
